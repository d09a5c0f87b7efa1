// A possibly damaged file on a possibly failing disk, opened for reading only.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "blobring/Store.h"
#include "pack/format/ByteSource.h"
#include "tools/base/Files.h"

namespace tool {

// A set of offsets as disjoint ranges: begin, and one past the last.
using Ranges = std::map<uint64_t, uint64_t>;

void Add(Ranges& ranges, uint64_t begin, uint64_t end);
bool Contains(const Ranges& ranges, uint64_t at);
// What is missing from [begin, end).
Ranges Gaps(const Ranges& ranges, uint64_t begin, uint64_t end);

// Reads with pread(2): a mapping would kill the process if the file was cut short meanwhile. Blocks
// that cannot be read, or are gone, read as zeros and are noted.
class SalvageFile final : public format::ByteSource {
 public:
  // Throws Fault if the file cannot be opened or is not a regular file.
  explicit SalvageFile(const std::string& path);

  uint64_t size() const { return size_; }
  const Ranges& unreadable() const { return unreadable_; }

  uint64_t Length() const override { return size_; }
  std::span<const unsigned char> Held(uint64_t offset) const override;
  // Digest() moves the window as well.
  std::span<const unsigned char> From(uint64_t offset, uint64_t least) override;
  // Past the end of the file there are zeros.
  void Read(uint64_t offset, unsigned char* to, size_t size) override;

  // The MD5 digest of a part of the file. REQUIRES: it lies within size().
  blobring::Hash Digest(uint64_t offset, uint64_t size);

 private:
  void ReadFromDisk(uint64_t offset, unsigned char* to, size_t size);

  Fd fd_;
  uint64_t size_ = 0;
  uint64_t windowBegin_ = 0;
  std::vector<unsigned char> window_;
  Ranges unreadable_;
};

}  // namespace tool
