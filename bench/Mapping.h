// A piece of a file in memory, shared with it, for reading and writing.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <utility>

#include "bench/Descriptor.h"

namespace bench {

class Mapping {
 public:
  Mapping() = default;
  // `size` may go beyond the file's end; what lies there becomes readable
  // once the file has grown.
  Mapping(const Descriptor& file, std::size_t mappedSize)
      : bytes(::mmap(nullptr, mappedSize, PROT_READ | PROT_WRITE, MAP_SHARED, file.Number(), 0)), size(mappedSize) {
    if (bytes == MAP_FAILED) ThrowSystemError("mmap");
  }
  Mapping(Mapping&& other) noexcept { *this = std::move(other); }
  Mapping& operator=(Mapping&& other) noexcept {
    std::swap(bytes, other.bytes);
    std::swap(size, other.size);
    return *this;
  }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping() {
    if (bytes != MAP_FAILED) ::munmap(bytes, size);
  }

  unsigned char* Bytes() const { return static_cast<unsigned char*>(bytes); }
  std::size_t Size() const { return size; }

  void Flush() const {
    if (::msync(bytes, size, MS_SYNC) != 0) ThrowSystemError("msync");
  }

 private:
  void* bytes = MAP_FAILED;
  std::size_t size = 0;
};

}  // namespace bench
