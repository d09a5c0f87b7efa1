#include "pack/RecordParser.h"

#include <algorithm>
#include <cstring>

using format::RecordHead;

BlobFile::BlobFileEntry EntryOf(const RecordHead& record, std::uint32_t offset,
                                std::uint32_t ordinal) {
  BlobFile::BlobFileEntry entry;
  entry.op = record.op.op;
  entry.transactionId = record.op.transactionId;
  entry.ordinal = ordinal;
  entry.offset = offset;
  entry.hash.setHash(const_cast<unsigned char*>(record.hash));  // only reads it
  entry.size = record.size;
  entry.valid = record.op.op == format::kOpStore;
  return entry;
}

void RecordParser::Feed(std::span<const unsigned char> bytes) {
  while (!bytes.empty() && !foundBadRecord) {
    if (dataLeft > 0) {
      const std::size_t skip = std::min<std::size_t>(dataLeft, bytes.size());
      dataLeft -= static_cast<std::uint32_t>(skip);
      bytes = bytes.subspan(skip);
      continue;
    }
    const std::size_t take = std::min<std::size_t>(wanted - filled, bytes.size());
    std::memcpy(head + filled, bytes.data(), take);
    filled += static_cast<std::uint32_t>(take);
    bytes = bytes.subspan(take);
    if (filled == wanted) HeadFilled();
  }
}

void RecordParser::HeadFilled() {
  if (wanted == format::kOpHeaderSize) {
    op = format::OpHeader::Decode(head);
    foundBadRecord = op.op != format::kOpStore && op.op != format::kOpDelete;
    wanted = op.op == format::kOpStore ? format::kStoreHeadSize : format::kDeleteSize;
    return;
  }
  const RecordHead record = RecordHead::Decode(head);
  entries.push_back(EntryOf(record, recordOffset, static_cast<std::uint32_t>(entries.size()) + 1));
  recordOffset += filled + record.size;
  dataLeft = record.size;
  filled = 0;
  wanted = format::kOpHeaderSize;
}
