#include "pack/format/RecordParser.h"

#include <algorithm>
#include <cstring>

namespace format {

std::uint64_t RecordParser::Skip(std::uint64_t most) {
  const std::uint64_t skipped = std::min<std::uint64_t>(dataLeft, most);
  dataLeft -= static_cast<std::uint32_t>(skipped);
  position += skipped;
  return skipped;
}

bool RecordParser::Fill(std::span<const unsigned char>& bytes) {
  bytes = bytes.subspan(static_cast<std::size_t>(Skip(bytes.size())));
  while (!bytes.empty()) {
    const std::size_t take = std::min<std::size_t>(wanted - filled, bytes.size());
    std::memcpy(header + filled, bytes.data(), take);
    filled += static_cast<std::uint32_t>(take);
    position += take;
    bytes = bytes.subspan(take);
    if (filled < wanted) return false;
    if (filled > kOpHeaderSize) {
      static_cast<RecordHeader&>(record) = RecordHeader::Decode(header);
      return true;
    }
    record.op = OpHeader::Decode(header);
    foundBadRecord = record.op.op != kOpStore && record.op.op != kOpDelete;
    if (foundBadRecord) return false;
    wanted = record.IsStore() ? kStoreHeaderSize : kDeleteSize;
  }
  return false;
}

void RecordParser::NextRecord() {
  dataLeft = record.IsStore() ? record.size : 0;
  lastOffset = record.offset;
  record.offset = record.End();
  filled = 0;
  wanted = kOpHeaderSize;
}

}  // namespace format
