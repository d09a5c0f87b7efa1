#include "pack/RecordParser.h"

#include <algorithm>
#include <cstring>

RecordParser::RecordParser(BlobFile::Entries& entries, std::int32_t& remainingRecords, std::uint32_t offset)
    : out(entries), remaining(remainingRecords), recordOffset(offset) {}

void RecordParser::Feed(std::span<const unsigned char> bytes) {
  while (!bytes.empty() && stop == Stop::None) {
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
    if (remaining == 0) {
      stop = Stop::CountUsed;
      return;
    }
    op = format::OpHeader::Decode(head);
    if (op.op == format::kOpStore) {
      wanted = format::kStoreHeadSize;
    } else if (op.op == format::kOpDelete) {
      wanted = format::kDeleteSize;
    } else {
      stop = Stop::BadRecord;
    }
    return;
  }
  Complete(op.op == format::kOpStore ? format::Get32(head + format::kDeleteSize) : 0);
}

void RecordParser::Complete(std::uint32_t size) {
  BlobFile::BlobFileEntry entry;
  entry.op = op.op;
  entry.transactionId = op.transactionId;
  entry.ordinal = ++ordinal;
  entry.offset = recordOffset;
  entry.hash.setHash(head + format::kOpHeaderSize);
  entry.size = size;
  entry.valid = op.op == format::kOpStore;
  out.push_back(entry);
  --remaining;
  recordOffset += filled + size;
  dataLeft = size;
  filled = 0;
  wanted = format::kOpHeaderSize;
}
