// A file that may be damaged, on a disk that may be failing, read and nothing else.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "blobring/Store.h"
#include "tools/Fd.h"

namespace tool {

using blobring::Hash;

// Reads by pread(2) through one window: a mapping would end the process when
// somebody cuts the file. What cannot be read, or is no longer there, reads as
// zeros and is noted. Offsets and sizes are bytes. Takes no lock.
class SalvageFile {
 public:
  struct Range {
    uint64_t begin;
    uint64_t end;
  };

  // Throws Fault when the file cannot be opened or is no regular file. Its size
  // is that of this moment; what is added later is not looked at.
  explicit SalvageFile(std::string path);

  const std::string& path() const { return path_; }
  uint64_t size() const { return size_; }

  // Copies size bytes at offset, which lie within size().
  void Read(uint64_t offset, unsigned char* to, uint64_t size);

  // The bytes from offset on that the window holds, at least one; valid until
  // the next call. offset must be below size().
  Bytes From(uint64_t offset);

  // The MD5 digest of a part of the file.
  Hash Digest(uint64_t offset, uint64_t size);

  // What could not be read, in the order of the first attempt.
  const std::vector<Range>& unreadable() const { return unreadable_; }

 private:
  void Fill(uint64_t offset);
  void FillWithGaps(size_t wanted);
  void NoteUnreadable(uint64_t begin, uint64_t end);

  std::string path_;
  Fd fd_;
  uint64_t size_ = 0;
  std::vector<unsigned char> window_;
  uint64_t windowBegin_ = 0;
  size_t windowSize_ = 0;
  std::vector<Range> unreadable_;
};

}  // namespace tool
