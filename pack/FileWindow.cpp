#include "pack/FileWindow.h"

#include <algorithm>
#include <cstring>

#include "pack/Replay.h"
#include "platform/BlobAllocator.h"

namespace {

constexpr std::uint32_t kUsualSize = 256 * 1024;
constexpr std::uint32_t kLeastSize = 4096;

}  // namespace

std::span<const unsigned char> FileWindow::Held(std::uint32_t offset) const {
  if (offset < start || offset - start >= held) return {};
  return {buffer.data() + (offset - start), held - (offset - start)};
}

std::span<const unsigned char> FileWindow::From(std::uint32_t offset, std::uint32_t least) {
  const std::span<const unsigned char> there = Held(offset);
  if (buffer.empty())
    ResizeOrSmaller(buffer, std::clamp(length - offset, kLeastSize, kUsualSize), kLeastSize);
  if (there.size() >= std::min<std::size_t>({least, length - offset, buffer.size()})) return there;
  held = 0;
  start = offset;
  const auto size = std::min(length - offset, static_cast<std::uint32_t>(buffer.size()));
  ReadPast(offset, buffer.data(), size);
  held = size;
  return Held(offset);
}

void FileWindow::RequireThere(std::uint32_t offset, std::uint32_t size) const {
  const std::uint32_t left = length - std::min(offset, length);
  if (left < size) throw CutShort(File::ShortRead(size, left, ERROR_SUCCESS));
}

const unsigned char* FileWindow::Read(std::uint32_t offset, std::uint32_t size) {
  RequireThere(offset, size);
  return From(offset, size).data();
}

void FileWindow::Peek(std::uint32_t offset, unsigned char* bytes, std::uint32_t size) const {
  RequireThere(offset, size);
  const std::span<const unsigned char> there = Held(offset);
  if (there.size() >= size) {
    std::memcpy(bytes, there.data(), size);
  } else {
    ReadPast(offset, bytes, size);
  }
}

void FileWindow::ReadPast(std::uint32_t offset, unsigned char* bytes, std::uint32_t size) const {
  file.seek(offset);
  file.read(reinterpret_cast<char*>(bytes), size);
}
