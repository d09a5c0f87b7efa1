#include "pack/FileScanner.h"

#include <algorithm>
#include <cstring>

#include "pack/CutShort.h"

namespace {

constexpr std::uint32_t kBufferSize = 256 * 1024;

}  // namespace

FileScanner::FileScanner(File& source, std::uint32_t offset, std::uint32_t end)
    : file(source), position(offset), length(end) {}

std::span<const unsigned char> FileScanner::Next(std::uint32_t max) {
  if (Held(position).empty()) Fill(max);
  const std::uint32_t at = position - bufferStart;
  const std::uint32_t size = std::min(max, buffered - at);
  position += size;
  return {buffer.data() + at, size};
}

// Loads the buffer from the position on.
void FileScanner::Fill(std::uint32_t wanted) {
  if (buffer.empty()) buffer.resize(std::clamp(Left(), std::uint32_t{1}, kBufferSize));
  file.seek(position);
  char* bytes = reinterpret_cast<char*>(buffer.data());
  buffered = 0;
  bufferStart = position;
  if (Left() == 0) {
    // Whoever asks goes by a length that the file does not have. The read
    // that finds no byte gives the error its words.
    try {
      file.read(bytes, std::min<std::uint32_t>(wanted, static_cast<std::uint32_t>(buffer.size())));
    } catch (const std::runtime_error& e) {
      throw CutShort(e.what());
    }
    throw CutShort("FileScanner: " + file.Path() + " ends at " + std::to_string(length));
  }
  const std::uint32_t size = std::min<std::uint32_t>(Left(), static_cast<std::uint32_t>(buffer.size()));
  file.read(bytes, size);
  buffered = size;
}

void FileScanner::Read(unsigned char* bytes, std::uint32_t size) {
  while (size > 0) {
    const std::span<const unsigned char> piece = Next(size);
    std::memcpy(bytes, piece.data(), piece.size());
    bytes += piece.size();
    size -= static_cast<std::uint32_t>(piece.size());
  }
}

void FileScanner::Prefetch(std::uint32_t size) {
  if (Held(position).size() < std::min(size, Left())) Fill(size);
}

std::span<const unsigned char> FileScanner::Held(std::uint32_t offset) const {
  if (offset < bufferStart || offset - bufferStart >= buffered) return {};
  return {buffer.data() + (offset - bufferStart), buffered - (offset - bufferStart)};
}

void FileScanner::ReadAt(std::uint32_t offset, unsigned char* bytes, std::uint32_t size) const {
  const std::span<const unsigned char> held = Held(offset);
  if (held.size() >= size) {
    std::memcpy(bytes, held.data(), size);
    return;
  }
  file.seek(offset);
  file.read(reinterpret_cast<char*>(bytes), size);
}
