#include "pack/format/RecordReader.h"

#include <algorithm>
#include <cstring>

namespace format {

namespace {

using Cause = Break::Cause;
using Place = Break::Place;

// The piece that one transaction of a run is read in, where the window does not hold it; whole
// blocks of the digest. With a window of 256 KiB, a run takes 1 MiB.
constexpr std::uint32_t kPieceSize = 48 * 1024;
// Held from the first transaction of a run on, so that short ones are seldom read one by one.
constexpr std::uint32_t kLookAhead = 32 * 1024;
constexpr std::uint32_t kDigestBlock = 64;
constexpr std::uint32_t kLargeRecord = 4096;  // behind those, headers are read alone

constexpr std::int64_t kLeastRecords = 3;  // of a transaction

// Feeds the parser with what stands before `end`, without the data. `visit` returns whether to go
// on.
template <class Visit>
void ParseHeaders(ByteSource& source, RecordParser& parser, std::uint64_t end, const Visit& visit) {
  bool goesOn = true;
  std::uint64_t usual = 0;  // data of a record; the last ones count most
  while (goesOn && !parser.FoundBadRecord() && parser.Position() < end) {
    usual = (7 * usual + parser.Skip(end - parser.Position())) / 8;
    const std::uint64_t at = parser.Position();
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(end - at, kStoreHeaderSize));
    unsigned char alone[kStoreHeaderSize];
    std::span<const unsigned char> header(alone, size);
    if (usual >= kLargeRecord)
      source.Read(at, alone, size);
    else if (size > 0)
      header = source.From(at, size).first(size);  // never two headers
    parser.Feed(header, [&](const Record& record) { goesOn = visit(record); });
  }
}

}  // namespace

void VisitRecords(ByteSource& source, std::uint64_t begin, std::uint64_t end,
                  const std::function<bool(const Record&)>& visit) {
  RecordParser parser(begin);
  ParseHeaders(source, parser, end,
               [&](const Record& record) { return record.End() <= end && visit(record); });
}

RecordReader::RecordReader(ByteSource& bytes, const FileHeader& fileHeader, ReadListener& hears,
                           Digests compared)
    : source(bytes),
      header(fileHeader),
      length(bytes.Length()),
      listener(hears),
      digests(compared) {
  result.remaining = static_cast<std::int32_t>(fileHeader.recordCount);
}

ReadResult RecordReader::Run() {
  if (result.remaining < 0) Fail({Cause::kCount, Place::kOutside, result.end, {}});
  while (result.remaining > 0 && !result.broken && ReadNext()) {
  }
  return result;
}

torn::Verdict RecordReader::JudgeRest() {
  if (result.remaining <= 0) return {};
  return torn::Judge({length, result.transactionsAtEnd, result.end, header.endOffset,
                      static_cast<std::uint64_t>(result.remaining)},
                     source);
}

bool RecordReader::Fail(const Break& broken) {
  result.broken = broken;
  return false;
}

bool RecordReader::FileEnds(Place place, std::uint64_t offset, std::uint64_t wanted,
                            std::uint64_t got) {
  return Fail({Cause::kFileEnds,
               place,
               offset,
               {},
               result.remaining,
               static_cast<std::uint32_t>(wanted),
               static_cast<std::uint32_t>(got)});
}

// What the whole transactions end with is followed by a transaction, and by others in its run.
bool RecordReader::ReadNext() {
  const std::uint64_t at = result.end;
  const std::uint64_t left = length - std::min(at, length);
  if (left < kOpHeaderSize) return FileEnds(Place::kOutside, at, kOpHeaderSize, left);
  const OpHeader record = OpHeader::Decode(source.From(at, kOpHeaderSize).data());
  switch (record.op) {
    case kOpStartTransaction:
      return ReadTransactions(at, record);
    case kOpStore:
    case kOpDelete:
      return ReadSingle(at, record);
    default:
      return Fail({Cause::kOp, Place::kOutside, at, record});
  }
}

// The transaction at start and those that follow it, up to the first that is not whole.
bool RecordReader::ReadTransactions(std::uint64_t start, const OpHeader& record) {
  const std::uint64_t left = length - start - kOpHeaderSize;
  if (left < kBlockSize) return FileEnds(Place::kStart, start, kBlockSize, left);
  source.From(start, kLookAhead);
  unsigned char bytes[kStartSize];
  source.Read(start, bytes, sizeof bytes);
  const StartRecord decoded = StartRecord::Decode(bytes);
  const TransactionBlock& block = decoded.block;
  if (block.length == 0) return Fail({Cause::kNotEnded, Place::kStart, start, record});
  const std::uint64_t there = left - kBlockSize;
  if (block.length > there) {
    constexpr std::uint64_t kPart = 4096;  // what a reader of single transactions reads at a time
    const std::uint64_t whole = there / kPart * kPart;
    return FileEnds(Place::kStart, start, std::min(block.length - whole, kPart), there - whole);
  }
  laneCount = 0;
  AddLane(start, decoded);
  if (IsCompared(lanes[0].transaction)) {
    if (digests == Digests::kCompare) AddFollowing();
    Digest();
  } else {
    ParseHeaders(source, lanes[0].parser, lanes[0].transaction.BodyEnd(),
                 [this](const Record& each) {
                   Parse(lanes[0], each);
                   return true;
                 });
  }
  for (std::size_t i = 0; i < laneCount && result.remaining != 0; ++i)
    if (!Accept(lanes[i])) return false;
  return true;
}

void RecordReader::AddLane(std::uint64_t start, const StartRecord& record) {
  Lane& lane = lanes[laneCount];
  lane.reader = this;
  lane.index = laneCount++;
  lane.transaction = {record, start};
  lane.at = lane.transaction.BodyOffset();
  lane.parser = RecordParser(lane.at);
}

// Looks no further than where the header, if it can be believed, says that the records end:
// leftovers behind that would be digested in vain.
void RecordReader::AddFollowing() {
  const std::uint64_t first = lanes[0].transaction.BodyEnd();
  const std::uint64_t limit = std::min(length, std::max<std::uint64_t>(header.endOffset, first));
  while (laneCount < kMost &&
         result.remaining >= static_cast<std::int64_t>(laneCount + 1) * kLeastRecords) {
    const std::uint64_t end = lanes[laneCount - 1].transaction.BodyEnd();
    unsigned char bytes[kEndSize + kStartSize];
    if (limit - end < sizeof bytes + kEndSize) return;
    source.Read(end, bytes, sizeof bytes);
    const StartRecord record = StartRecord::Decode(bytes + kEndSize);
    if (OpHeader::Decode(bytes).op != kOpEndTransaction || record.start.op != kOpStartTransaction)
      return;
    const std::uint32_t size = record.block.length;
    if (size == 0 || size > limit - end - sizeof bytes - kEndSize) return;
    AddLane(end + kEndSize, record);
  }
}

bool RecordReader::IsCompared(const Transaction& transaction) const {
  return digests == Digests::kCompare ||
         (digests == Digests::kLast && transaction.block.length <= kBlankAhead &&
          transaction.End() >= header.endOffset);
}

void RecordReader::Digest() {
  std::size_t room = 0;
  for (std::size_t i = 0; i < laneCount; ++i) {
    const Transaction& transaction = lanes[i].transaction;
    const bool isHeld = !source.Held(transaction.BodyEnd() - 1).empty();
    lanes[i].pieceSize = isHeld ? 0 : std::min(kPieceSize, transaction.block.length);
    room += lanes[i].pieceSize;
  }
  if (laneCount > 1 && piecesSize < room) {
    pieces = listener.Lend(room);
    piecesSize = pieces != nullptr ? room : 0;
    if (pieces == nullptr) laneCount = 1;  // through the window
  }
  std::array<MD5Message, kMost> messages;
  std::size_t used = 0;
  for (std::size_t i = 0; i < laneCount; ++i) {
    lanes[i].piece = laneCount > 1 ? pieces + used : nullptr;
    used += lanes[i].pieceSize;
    messages[i] = {nullptr, 0, lanes[i].digest, &lanes[i]};
  }
  digested = lanes[0].at;
  DigestMany(messages.data(), laneCount);
}

std::span<const std::uint8_t> RecordReader::Lane::Next() {
  const std::uint64_t left = transaction.BodyEnd() - at;
  if (left == 0) return {};
  std::span<const std::uint8_t> bytes =
      reader->laneCount == 1 ? reader->source.From(at, kDigestBlock) : reader->source.Held(at);
  bytes = bytes.first(bytes.size() >= left ? static_cast<std::size_t>(left)
                                           : bytes.size() / kDigestBlock * kDigestBlock);
  if (bytes.empty()) {
    bytes = {piece, static_cast<std::size_t>(std::min<std::uint64_t>(left, pieceSize))};
    reader->source.Read(at, piece, bytes.size());
  }
  parser.Feed(bytes, [this](const Record& record) { reader->Parse(*this, record); });
  at += bytes.size();
  reader->digested += bytes.size();
  reader->listener.OnDigested(reader->digested);
  return bytes;
}

void RecordReader::Parse(Lane& lane, const Record& record) {
  ++(record.IsStore() ? lane.transaction.storeCount : lane.transaction.deleteCount);
  lane.transaction.blobBytes += record.size;
  listener.OnRecord(lane.index, record);
}

// The count of the header comes before what is wrong with the records: what lies behind it is not
// looked at.
bool RecordReader::Accept(const Lane& lane) {
  const Transaction& transaction = lane.transaction;
  const std::int64_t inside = result.remaining - 1;
  const auto found = static_cast<std::int64_t>(transaction.RecordCount() - 2);
  const bool isCounted = found < inside;
  const Break broken = isCounted ? BreakIn(lane, inside - found) : Break{};
  if (IsCompared(transaction) &&
      std::memcmp(lane.digest, transaction.block.digest, sizeof lane.digest) != 0) {
    result.beneath = broken;
    if (isCounted && !broken) result.mismatched = transaction;
    return Fail({Cause::kDigest, Place::kStart, transaction.offset, transaction.start});
  }
  // Whole as it was written. What remains is whether a store wrote it.
  if (broken) return Fail(broken);
  if (!isCounted) {
    result.leftOut = inside;
    result.remaining = 0;
    return true;
  }
  listener.OnTransaction(lane.index, transaction);
  result.remaining -= found + 2;
  result.recordCount += transaction.RecordCount();
  result.end = transaction.End();
  ++result.transactionsAtEnd;
  return true;
}

// What is wrong with a transaction of which the header counts `left` records more than it has
// store and delete records.
Break RecordReader::BreakIn(const Lane& lane, std::int64_t left) {
  const RecordParser& parser = lane.parser;
  const std::uint64_t end = lane.transaction.BodyEnd();
  if (parser.FoundBadRecord())
    return {Cause::kOp, Place::kBody, parser.RecordOffset(), parser.BadRecord()};
  if (!parser.AtBoundary())
    return {Cause::kTooLong, Place::kBody, parser.RecordOffset(), lane.transaction.start};
  if (length - end < kEndSize)
    return {Cause::kFileEnds,
            Place::kEnd,
            end,
            {},
            left,
            kEndSize,
            static_cast<std::uint32_t>(length - end)};
  unsigned char bytes[kEndSize];
  source.Read(end, bytes, sizeof bytes);
  const OpHeader record = OpHeader::Decode(bytes);
  if (record.op != kOpEndTransaction) return {Cause::kOp, Place::kEnd, end, record};
  return {};
}

// A record outside any transaction. No store writes one. It is believed if it is what it says:
// where a start record did not reach the disk, zeros and the rest of it look like a store record.
bool RecordReader::ReadSingle(std::uint64_t start, const OpHeader& record) {
  const std::uint64_t left = length - start;
  constexpr std::uint32_t kSizeSize = kStoreHeaderSize - kDeleteSize;
  if (left < kDeleteSize) return FileEnds(Place::kSingle, start, kHashSize, left - kOpHeaderSize);
  const bool isStore = record.op == kOpStore;
  if (isStore && left < kStoreHeaderSize)
    return FileEnds(Place::kSingle, start, kSizeSize, left - kDeleteSize);
  unsigned char bytes[kStoreHeaderSize];
  source.Read(start, bytes, isStore ? kStoreHeaderSize : kDeleteSize);
  const Record single{RecordHeader::Decode(bytes), start};
  if (single.End() > length) return Fail({Cause::kTooLong, Place::kSingle, start, record});
  if (isStore && digests != Digests::kIgnore &&
      !source.HasDigest(single.DataOffset(), single.size, single.hash))
    return Fail({Cause::kHash, Place::kSingle, start, record});
  listener.OnSingle(single);
  result.remaining -= 1;
  result.recordCount += 1;
  result.end = single.End();
  result.transactionsAtEnd = 0;
  return true;
}

}  // namespace format
