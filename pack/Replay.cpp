#include "pack/Replay.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "platform/Trace.h"

using format::OpHeader;
using format::TransactionBlock;

namespace {

// The piece that one transaction of a run is read in, where the window does not hold it; whole
// blocks of the digest. With the window, a run takes 1 MiB.
constexpr std::uint32_t kPieceSize = 48 * 1024;
// Held from the first transaction of a run on, so that short ones are seldom read one by one.
constexpr std::uint32_t kLookAhead = 32 * 1024;
constexpr std::uint32_t kDigestBlock = 64;

constexpr std::int32_t kLeastRecords = 3;  // of a transaction

}  // namespace

Replay::Replay(File& source, const format::FileHeader& fileHeader, std::uint32_t fileLength,
               const ProgressCall* progressCall)
    : file(source),
      window(source, fileLength),
      header(fileHeader),
      length(fileLength),
      progress(progressCall),
      remaining(static_cast<std::int32_t>(fileHeader.recordCount)) {}

Replayed Replay::Run() {
  try {
    result.damaged = !Walk();
  } catch (const CutShort& e) {
    result.damaged = true;
    result.cutShort = e;
  }
  if (result.damaged) JudgeRest();
  return std::move(result);
}

bool Replay::Walk() {
  while (remaining != 0) {
    const std::uint32_t at = result.end;
    if (remaining < 0 || at == length) return MissingRecords(remaining);
    const OpHeader record = OpHeader::Decode(window.Read(at, format::kOpHeaderSize));
    switch (record.op) {
      case format::kOpStartTransaction:
        if (!TakeTransactions(at, record)) return false;
        break;
      case format::kOpStore:
      case format::kOpDelete:
        if (!TakeSingle(at, record)) return false;
        break;
      case format::kOpEndTransaction:
        return Corrupt(
            "BlobFile::Load corruption, end transaction without start transaction id=%d file=%s",
            record);
      default:
        return UnsupportedOp(record);
    }
  }
  return true;
}

void Replay::MarkWhole(std::uint32_t recordCount, std::uint32_t end) {
  remaining -= static_cast<std::int32_t>(recordCount);
  result.count += recordCount;
  result.end = end;
}

// The transaction at start and those that follow it, up to the first that is not whole.
bool Replay::TakeTransactions(std::uint32_t start, const OpHeader& record) {
  unsigned char bytes[format::kBlockSize];
  window.From(start, kLookAhead);
  window.Peek(start + format::kOpHeaderSize, bytes, sizeof bytes);
  const TransactionBlock block = TransactionBlock::Decode(bytes);
  if (block.length == 0) {
    trace::pack.WriteErrorV(
        "BlobFile::Load EOF error during validation of transaction.  This is normal for first boot "
        "after a disk wipe, "
        "but no other time.");
    return false;
  }
  const std::uint32_t there = length - start - format::kStartSize;
  if (block.length > there) {
    constexpr std::uint32_t kPart = 4096;  // what a reader of single transactions reads at a time
    const std::uint32_t whole = there / kPart * kPart;
    throw CutShort(
        File::ShortRead(std::min(block.length - whole, kPart), there - whole, ERROR_SUCCESS));
  }
  runSize = 0;
  Add(start, record, block);
  AddFollowing();
  Digest();
  for (std::size_t i = 0; i < runSize && remaining != 0; ++i) {
    if (!Take(run[i])) return false;
  }
  return true;
}

void Replay::Add(std::uint32_t start, const OpHeader& record, const TransactionBlock& block) {
  Member& member = run[runSize++];
  member.replay = this;
  member.start = record;
  member.at = start + format::kStartSize;
  member.end = member.at + block.length;
  member.parser.emplace(member.at);
  std::memcpy(member.wanted, block.digest, sizeof member.wanted);
}

// Looks no further than where the header, if it can be believed, says that the records end:
// leftovers behind that would be digested in vain.
void Replay::AddFollowing() {
  const std::uint32_t limit = std::min(length, std::max(header.endOffset, run[0].end));
  while (runSize < kMost && remaining >= static_cast<std::int32_t>(runSize + 1) * kLeastRecords) {
    const std::uint32_t end = run[runSize - 1].end;
    unsigned char bytes[format::kEndSize + format::kStartSize];
    if (limit - end < sizeof bytes + format::kEndSize) return;
    window.Peek(end, bytes, sizeof bytes);
    const unsigned char* const start = bytes + format::kEndSize;
    const OpHeader record = OpHeader::Decode(start);
    const TransactionBlock block = TransactionBlock::Decode(start + format::kOpHeaderSize);
    if (OpHeader::Decode(bytes).op != format::kOpEndTransaction ||
        record.op != format::kOpStartTransaction)
      return;
    if (block.length == 0 || block.length > limit - end - sizeof bytes - format::kEndSize) return;
    Add(end + format::kEndSize, record, block);
  }
}

void Replay::Digest() {
  std::size_t room = 0;
  for (std::size_t i = 0; i < runSize; ++i) {
    run[i].pieceAt = room;
    run[i].pieceSize =
        window.Held(run[i].end - 1).empty() ? std::min(kPieceSize, run[i].end - run[i].at) : 0;
    room += run[i].pieceSize;
  }
  try {
    if (runSize > 1 && pieces.size() < room) pieces.resize(room);
  } catch (const Failure&) {
    runSize = 1;  // through the window
  }
  std::array<MD5Message, kMost> messages;
  for (std::size_t i = 0; i < runSize; ++i) messages[i] = {nullptr, 0, run[i].digest, &run[i]};
  digested = run[0].at;
  DigestMany(messages.data(), runSize);
}

std::span<const std::uint8_t> Replay::Member::Next() {
  const std::uint32_t left = end - at;
  if (left == 0) return {};
  std::span<const std::uint8_t> piece =
      replay->runSize == 1 ? replay->window.From(at, kDigestBlock) : replay->window.Held(at);
  piece = piece.first(piece.size() >= left ? left : piece.size() / kDigestBlock * kDigestBlock);
  if (piece.empty()) {
    unsigned char* const bytes = replay->pieces.data() + pieceAt;
    piece = {bytes, std::min(left, pieceSize)};
    replay->window.ReadPast(at, bytes, static_cast<std::uint32_t>(piece.size()));
  }
  parser->Feed(piece);
  at += static_cast<std::uint32_t>(piece.size());
  replay->Report(static_cast<std::uint32_t>(piece.size()));
  return piece;
}

// Once per MiB. A load cannot be stopped: half an index would pass for a whole one.
void Replay::Report(std::uint32_t size) {
  constexpr std::uint32_t kStep = 1024 * 1024;
  digested += size;
  if (progress == nullptr || digested < reported || digested - reported < kStep) return;
  reported = digested;
  progress->Stops(ProgressCall::kLoad, digested, std::max(digested, header.endOffset));
}

bool Replay::Take(Member& member) {
  const RecordParser& parser = *member.parser;
  BlobFile::Entries& entries = member.parser->entries;
  if (std::memcmp(member.digest, member.wanted, sizeof member.digest) != 0)
    return Corrupt("BlobFile::Load (start transaction) corruption, bad hash value id=%d file=%s",
                   member.start);

  // Whole as it was written. What remains is whether a store wrote it.
  const std::int32_t inside = remaining - 1;
  const auto found = static_cast<std::int32_t>(entries.size());
  if (found >= inside) {
    // Not damage: the header counts no further, and what it counts was whole.
    remaining = 0;
    if (inside > 0)
      trace::pack.WriteErrorV(
          "BlobFile::Load() failed to find the end of the transaction (transactions=%d entries=%d "
          "file=%s)",
          inside, remaining, file.Path().c_str());
    return true;
  }
  if (parser.FoundBadRecord()) {
    const OpHeader& bad = parser.BadRecord();
    if (bad.op == format::kOpStartTransaction)
      return Corrupt("BlobFile::Load corruption, nested transaction id=%d file=%s", bad);
    if (bad.op == format::kOpEndTransaction)
      return Corrupt("BlobFile::Load corruption, transaction ends before its length id=%d file=%s",
                     bad);
    return UnsupportedOp(bad);
  }
  if (!parser.AtBoundary())
    return Corrupt("BlobFile::Load corruption, record runs past its transaction id=%d file=%s",
                   member.start);
  if (!EndStandsAt(member.end, inside - found)) return false;
  if (result.entries.empty()) {
    result.entries.swap(entries);
  } else {
    result.entries.insert(result.entries.end(), std::make_move_iterator(entries.begin()),
                          std::make_move_iterator(entries.end()));
  }
  MarkWhole(static_cast<std::uint32_t>(found) + 2, member.end + format::kEndSize);
  ++result.transactionCount;
  return true;
}

// Whether the end record stands where the digest ends; `left` records are still counted.
bool Replay::EndStandsAt(std::uint32_t offset, std::int32_t left) {
  if (offset == length) return MissingRecords(left);
  unsigned char bytes[format::kEndSize];
  window.Peek(offset, bytes, sizeof bytes);
  const OpHeader record = OpHeader::Decode(bytes);
  switch (record.op) {
    case format::kOpEndTransaction:
      return true;
    case format::kOpStartTransaction:
      return Corrupt("BlobFile::Load corruption, nested transaction id=%d file=%s", record);
    case format::kOpStore:
    case format::kOpDelete:
      return Corrupt(
          "BlobFile::Load corruption, record outside the digest of its transaction id=%d file=%s",
          record);
    default:
      return UnsupportedOp(record);
  }
}

// A record outside any transaction. No store writes one. It is believed if it is what it says:
// where a start record did not reach the disk, zeros and the rest of it look like a store record.
bool Replay::TakeSingle(std::uint32_t start, const OpHeader& record) {
  unsigned char bytes[format::kStoreHeadSize] = {};
  record.Encode(bytes);
  window.Peek(start + format::kOpHeaderSize, bytes + format::kOpHeaderSize, format::kHashSize);
  std::uint32_t end = start + format::kDeleteSize;
  if (record.op == format::kOpStore) {
    constexpr std::uint32_t kSizeSize = format::kStoreHeadSize - format::kDeleteSize;
    window.Peek(end, bytes + format::kDeleteSize, kSizeSize);
    end += kSizeSize;
  }
  const format::RecordHead head = format::RecordHead::Decode(bytes);
  if (head.size > length - end)
    return Corrupt("BlobFile::Load corruption, record runs past the end of the file id=%d file=%s",
                   record);
  if (record.op == format::kOpStore && !torn::HasDigest(Bytes(), end, head.size, head.hash))
    return Corrupt(
        "BlobFile::Load corruption, record outside a transaction does not match its hash id=%d "
        "file=%s",
        record);
  result.entries.push_back(EntryOf(head, start, 0));
  MarkWhole(1, end + head.size);
  result.transactionCount = 0;
  return true;
}

torn::Source Replay::Bytes() {
  return [this](std::uint32_t offset, std::uint32_t least) { return window.From(offset, least); };
}

void Replay::JudgeRest() {
  if (remaining <= 0) return;
  result.rest = torn::Judge({length, result.transactionCount, result.end, header.endOffset,
                             static_cast<std::uint32_t>(remaining)},
                            Bytes());
}

bool Replay::MissingRecords(std::int32_t wanted) const {
  trace::pack.WriteWarnV("BlobFile::Load() didn't process all the entries entries=%d file=%s",
                         wanted, file.Path().c_str());
  return false;
}

bool Replay::Corrupt(trace::FormatFor<int, std::string> message, const OpHeader& record) const {
  trace::pack.WriteWarnV(message, static_cast<int>(record.transactionId), file.Path());
  return false;
}

bool Replay::UnsupportedOp(const OpHeader& record) const {
  trace::pack.WriteWarnV("BlobFile::Load() unsupported op=%d file=%s", record.op,
                         file.Path().c_str());
  return false;
}
