// One buffer for every blob in turn, and the reading of files into it.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "pack/Format.h"
#include "tools/Fd.h"

namespace tool {

// 2,147,483,531 bytes: alone in a file, in a transaction of its own.
constexpr uint64_t kMaxBlobSize = format::kMaxFileSize - format::kFileHeaderSize -
                                  format::kStartSize - format::kStoreHeadSize - format::kEndSize;

// Memory that grows and never shrinks. Nothing is zeroed: what is past the
// bytes last written is undefined.
class Buffer {
 public:
  // At least `size` bytes, keeping what is there. Throws Fault when memory is
  // short; the old contents stay.
  unsigned char* Reserve(size_t size);
  unsigned char* data() { return data_.get(); }
  size_t capacity() const { return capacity_; }

 private:
  struct Free {
    void operator()(void* block) const {
      std::free(block);
    }  // NOLINT(cppcoreguidelines-no-malloc): realloc
  };
  std::unique_ptr<unsigned char[], Free> data_;
  size_t capacity_ = 0;
};

struct SourceFile {
  Bytes bytes;           // in the buffer, until its next use
  bool changed = false;  // while it was read, three times in a row
};

// Reads a regular file whole; a file that changes meanwhile is read again. The
// contents are copied, never mapped: the bytes that are hashed must be the
// bytes that are stored, and a file cut short under a mapping kills the
// process. Throws Fault: no such file, not readable, larger than a blob can be,
// not a regular file (symbolic links are not followed).
SourceFile ReadRegularFile(const std::string& path, Buffer& buffer);

// Reads a file of any kind to its end; "-" is standard input. Throws Fault as
// above. May wait for a writer, unless the file is a regular one.
Bytes ReadStream(const std::string& path, Buffer& buffer);
bool IsRegularFile(const std::string& path);

// Reads words separated by white space from standard input.
std::vector<std::string> ReadWords();

}  // namespace tool
