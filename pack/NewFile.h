// A file that a power cut caught while it was created.
#pragma once

#include <algorithm>
#include <cstdint>

#include "pack/Format.h"

namespace format {

// Whether nothing was ever committed to a pack or journal of `size` bytes, which begins with these:
// at most a header of zeros, the beginning of a fresh one, or bytes in place of a header that no
// store wrote. Some file systems show those in a file that has grown.
inline bool WasCutOff(const unsigned char* bytes, std::uint64_t size, std::uint32_t mode) {
  if (size > kFileHeaderSize) return false;
  if (std::all_of(bytes, bytes + size, [](unsigned char byte) { return byte == 0; })) return true;
  FileHeader fresh;
  fresh.mode = mode;
  fresh.endOffset = kFileHeaderSize;
  unsigned char wanted[kFileHeaderSize];
  fresh.Encode(wanted);
  if (size < kFileHeaderSize) return std::equal(bytes, bytes + size, wanted);
  const FileHeader header = FileHeader::Decode(bytes);
  return header.version != kVersion && (header.mode > 1 || header.endOffset != kFileHeaderSize);
}

}  // namespace format
