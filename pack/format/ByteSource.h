// Where a reader gets the bytes of a file: through a window that moves front to back.
#pragma once

#include <cstdint>
#include <span>

namespace format {

class ByteSource {
 public:
  ByteSource(const ByteSource&) = delete;
  ByteSource& operator=(const ByteSource&) = delete;

  std::uint64_t Length() const { return length; }

  // What the window holds from offset on, possibly nothing. Valid until the window moves.
  std::span<const unsigned char> Held(std::uint64_t offset) const;

  // The same, but moves the window if it must to return at least `least` bytes, or as many as it
  // can hold (4096 or more), or all up to the end of the file.
  // REQUIRES: offset < Length().
  std::span<const unsigned char> From(std::uint64_t offset, std::uint64_t least);

  // Copies from the window, or from the file without moving it. REQUIRES: they are in the file.
  void Read(std::uint64_t offset, unsigned char* to, std::size_t size);

  // Whether these bytes, which are in the file, have this MD5 digest. Moves the window over them.
  bool HasDigest(std::uint64_t offset, std::uint64_t size, const unsigned char* wanted);

 protected:
  static constexpr std::uint32_t kLeastWindow = 4096;

  // The window begins at multiples of `alignedTo`, a part of kLeastWindow.
  explicit ByteSource(std::uint64_t fileLength, std::uint32_t alignedTo = 1)
      : length(fileLength), alignment(alignedTo) {}
  ~ByteSource() = default;

  // The memory of the window, asked for once: `size` bytes, or fewer but kLeastWindow.
  virtual std::span<unsigned char> Allocate(std::size_t size) = 0;
  // From the file.
  virtual void ReadFile(std::uint64_t offset, unsigned char* to, std::size_t size) = 0;

 private:
  const std::uint64_t length;
  const std::uint32_t alignment;
  std::span<unsigned char> window;
  std::uint64_t start = 0;  // file offset of window[0]
  std::size_t held = 0;     // bytes in it
};

}  // namespace format
