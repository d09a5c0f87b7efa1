#include "pack/format/ByteSource.h"

#include <algorithm>
#include <cstring>

#include "md5/MD5.h"
#include "pack/format/Format.h"

namespace format {

std::span<const unsigned char> ByteSource::Held(std::uint64_t offset) const {
  if (offset < start || offset - start >= held) return {};
  const auto at = static_cast<std::size_t>(offset - start);
  return {window.data() + at, held - at};
}

std::span<const unsigned char> ByteSource::From(std::uint64_t offset, std::uint64_t least) {
  constexpr std::uint64_t kUsualWindow = 256 * 1024;
  if (window.empty())
    window = Allocate(
        static_cast<std::size_t>(std::clamp<std::uint64_t>(length, kLeastWindow, kUsualWindow)));
  const std::span<const unsigned char> there = Held(offset);
  if (there.size() >= std::min<std::uint64_t>({least, length - offset, window.size()}))
    return there;
  held = 0;
  start = offset - offset % alignment;
  const auto size =
      static_cast<std::size_t>(std::min<std::uint64_t>(length - start, window.size()));
  ReadFile(start, window.data(), size);
  held = size;
  return Held(offset);
}

void ByteSource::Read(std::uint64_t offset, unsigned char* to, std::size_t size) {
  if (size == 0) return;  // `to` may be null
  const std::span<const unsigned char> there = Held(offset);
  if (there.size() >= size)
    std::copy_n(there.begin(), size, to);
  else
    ReadFile(offset, to, size);
}

bool ByteSource::HasDigest(std::uint64_t offset, std::uint64_t size, const unsigned char* wanted) {
  MD5 md5;
  for (const std::uint64_t end = offset + size; offset < end;) {
    const std::span<const unsigned char> piece = From(offset, 1);
    const auto part =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(end - offset, piece.size()));
    md5.update(piece.data(), part);
    offset += part;
  }
  md5.finalize();
  unsigned char digest[kDigestSize];
  md5.raw_digest(digest);
  return std::memcmp(digest, wanted, sizeof digest) == 0;
}

}  // namespace format
