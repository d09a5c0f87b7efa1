#include "pack/format/Headers.h"

#include <algorithm>

namespace format {

FileHeader FreshHeader(std::uint32_t mode) {
  FileHeader fresh;
  fresh.mode = mode;
  fresh.endOffset = kFileHeaderSize;
  return fresh;
}

bool WasCutOff(const unsigned char* bytes, std::uint64_t size, std::uint32_t mode) {
  if (size > kFileHeaderSize) return false;
  if (std::all_of(bytes, bytes + size, [](unsigned char byte) { return byte == 0; })) return true;
  unsigned char wanted[kFileHeaderSize];
  FreshHeader(mode).Encode(wanted);
  if (size < kFileHeaderSize) return std::equal(bytes, bytes + size, wanted);
  const FileHeader header = FileHeader::Decode(bytes);
  return header.version != kVersion && (header.mode > 1 || header.endOffset != kFileHeaderSize);
}

bool EndsWithin(const FileHeader& header, std::uint64_t size) {
  return header.endOffset >= kFileHeaderSize && header.endOffset <= size;
}

bool IsOurs(const FileHeader& header) {
  return header.version == kVersion && header.mode <= 1;
}

Origin OriginOf(const unsigned char* bytes, std::uint64_t size, std::uint32_t mode) {
  const auto length = static_cast<std::size_t>(std::min<std::uint64_t>(size, kFileHeaderSize));
  unsigned char fresh[kFileHeaderSize];
  FreshHeader(mode).Encode(fresh);
  if (WasCutOff(bytes, size, mode) || std::equal(bytes, bytes + length, fresh))
    return Origin::kUnused;
  const FileHeader header = FileHeader::Decode(bytes);
  if (IsOurs(header)) return Origin::kStore;
  const bool isPlausible = header.mode <= 1 && EndsWithin(header, size);
  const bool isZeros = std::all_of(bytes, bytes + length, [](auto byte) { return byte == 0; });
  return header.version == kVersion || isPlausible || isZeros ? Origin::kDamaged : Origin::kForeign;
}

FileStatus FileStatus::Judge(const unsigned char* bytes, std::uint64_t fileSize) {
  FileStatus status = {State::kDamaged, fileSize, FileHeader::Decode(bytes)};
  if (WasCutOff(bytes, fileSize, 0) || WasCutOff(bytes, fileSize, 1))
    status.state = State::kNew;
  else if (EndsWithin(status.header, fileSize) &&
           static_cast<std::int32_t>(status.header.recordCount) >= 0)
    status.state = State::kSound;
  return status;
}

bool FileStatus::IsLoadable() const {
  return state == State::kNew || (IsOurs(header) && header.sequence >= 0 &&
                                  static_cast<std::int32_t>(header.recordCount) >= 0);
}

}  // namespace format
