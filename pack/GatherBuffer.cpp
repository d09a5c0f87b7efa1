#include "pack/GatherBuffer.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::size_t kFirst = 4 * 1024;

}  // namespace

void GatherBuffer::Restart(std::uint32_t offset) {
  bytes.clear();
  start = offset;
  written = 0;
  digested = 0;
}

void GatherBuffer::ReleaseAll() {
  Restart(start);
  decltype(bytes)().swap(bytes);
}

void GatherBuffer::ReleaseExcess() {
  if (bytes.capacity() > kUsualCapacity) ReleaseAll();
}

void GatherBuffer::Reserve(std::uint32_t size) {
  const std::size_t needed = bytes.size() + size;
  if (needed <= bytes.capacity()) return;
  bytes.reserve(
      std::max({needed, kFirst, std::min<std::size_t>(2 * bytes.capacity(), kUsualCapacity)}));
}

void GatherBuffer::Append(const unsigned char* data, std::uint32_t size) {
  bytes.insert(bytes.end(), data, data + size);
}

void GatherBuffer::Truncate(std::uint32_t offset) {
  bytes.resize(offset - start);
  written = std::min(written, offset - start);
  digested = std::min(digested, offset - start);
}

bool GatherBuffer::Patch(std::uint32_t offset, const unsigned char* data, std::uint32_t size) {
  if (offset < WrittenEnd()) return false;
  std::memcpy(bytes.data() + (offset - start), data, size);
  return true;
}
