// Where a reader gets the bytes of a file: through a window that moves front to back.
#pragma once

#include <cstdint>
#include <span>

namespace format {

class ByteSource {
 public:
  virtual std::uint64_t Length() const = 0;

  // What the window holds from offset on, possibly nothing. Valid until the window moves.
  virtual std::span<const unsigned char> Held(std::uint64_t offset) const = 0;

  // The same, but moves the window if it must to return at least `least` bytes, or as many as it
  // can hold (4096 or more), or all up to the end of the file.
  // REQUIRES: offset < Length().
  virtual std::span<const unsigned char> From(std::uint64_t offset, std::uint64_t least) = 0;

  // Copies from the window, or from the file without moving it. REQUIRES: they are in the file.
  virtual void Read(std::uint64_t offset, unsigned char* to, std::size_t size) = 0;

 protected:
  ~ByteSource() = default;
};

}  // namespace format
