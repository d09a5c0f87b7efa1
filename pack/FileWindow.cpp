#include "pack/FileWindow.h"

#include <algorithm>

namespace {

constexpr std::uint64_t kUsualSize = 256 * 1024;
constexpr std::uint64_t kLeastSize = 4096;

}  // namespace

std::span<const unsigned char> FileWindow::Held(std::uint64_t offset) const {
  if (offset < start || offset - start >= held) return {};
  const auto at = static_cast<std::size_t>(offset - start);
  return {buffer.data() + at, held - at};
}

std::span<const unsigned char> FileWindow::From(std::uint64_t offset, std::uint64_t least) {
  const std::span<const unsigned char> there = Held(offset);
  const std::uint64_t left = length - offset;
  if (buffer.empty())
    ResizeOrSmaller(buffer, static_cast<std::size_t>(std::clamp(left, kLeastSize, kUsualSize)),
                    static_cast<std::size_t>(kLeastSize));
  if (there.size() >= std::min<std::uint64_t>({least, left, buffer.size()})) return there;
  held = 0;
  start = offset;
  const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(left, buffer.size()));
  ReadFile(offset, buffer.data(), size);
  held = size;
  return Held(offset);
}

void FileWindow::Read(std::uint64_t offset, unsigned char* to, std::size_t size) {
  const std::span<const unsigned char> there = Held(offset);
  if (there.size() >= size) {
    std::copy_n(there.begin(), size, to);
  } else {
    ReadFile(offset, to, size);
  }
}

void FileWindow::ReadFile(std::uint64_t offset, unsigned char* to, std::size_t size) {
  file.seek(static_cast<unsigned>(offset));
  file.read(reinterpret_cast<char*>(to), static_cast<unsigned>(size));
}
