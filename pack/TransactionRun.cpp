#include "pack/TransactionRun.h"

#include <algorithm>
#include <cstring>

using format::OpHeader;
using format::TransactionBlock;

namespace {

// Read at a time of a transaction that the scanner does not hold whole; whole
// blocks of the digest.
constexpr std::uint32_t kPieceSize = 64 * 1024;
// Held from the first transaction on, so that short ones are seldom read one
// by one.
constexpr std::uint32_t kLookAhead = 32 * 1024;
constexpr std::uint32_t kDigestBlock = 64;

constexpr std::uint32_t kLeastSize = format::kStartSize + format::kEndSize;
constexpr std::int32_t kLeastRecords = 3;

}  // namespace

TransactionRun::TransactionRun(FileScanner& fileScanner, LoadProgress& loadProgress)
    : scanner(fileScanner), progress(loadProgress) {}

std::size_t TransactionRun::Find(std::uint32_t end, std::int32_t remaining) {
  count = 0;
  scanner.Prefetch(kLookAhead);
  std::uint32_t at = scanner.Offset();
  // What is read in one: a start record, and before it the end record of the
  // transaction before.
  unsigned char bytes[format::kEndSize + format::kStartSize];
  unsigned char* const start = bytes + format::kEndSize;
  if (at > end || end - at < kLeastSize) return 0;
  scanner.ReadAt(at, start, format::kStartSize);
  std::int32_t left = remaining;
  while (count < kMost && left >= kLeastRecords && end - at >= kLeastSize) {
    if (OpHeader::Decode(start).op != format::kOpStartTransaction) break;
    const TransactionBlock block = TransactionBlock::Decode(start + format::kOpHeaderSize);
    if (block.length == 0 || block.length > end - at - kLeastSize) break;
    const std::uint32_t next = at + kLeastSize + block.length;
    const std::uint32_t endRecord = next - format::kEndSize;
    scanner.ReadAt(endRecord, bytes, std::min<std::uint32_t>(sizeof bytes, end - endRecord));
    if (OpHeader::Decode(bytes).op != format::kOpEndTransaction) break;
    Add(at, block, remaining);
    at = next;
    left -= kLeastRecords;
  }
  return count;
}

void TransactionRun::Add(std::uint32_t start, const TransactionBlock& block, std::int32_t remaining) {
  Member& member = found[count++];
  member.run = this;
  member.at = start + format::kStartSize;
  member.end = member.at + block.length;
  member.pieceRoom = scanner.Held(member.end - 1).empty() ? std::min(kPieceSize, block.length) : 0;
  member.recordLimit = remaining;
  member.entries.clear();
  member.parser.emplace(member.entries, member.recordLimit, member.at);
  std::memcpy(member.wanted, block.digest, sizeof member.wanted);
}

void TransactionRun::Digest() {
  std::size_t room = 0;
  std::array<MD5Message, kMost> messages;
  for (std::size_t i = 0; i < count; ++i) {
    found[i].pieceAt = room;
    room += found[i].pieceRoom;
    messages[i] = {nullptr, 0, found[i].digest, &found[i]};
  }
  if (pieces.size() < room) pieces.resize(room);
  digested = scanner.Offset();
  DigestMany(messages.data(), count);
}

// Straight from the scanner's buffer as far as it goes.
std::span<const std::uint8_t> TransactionRun::Member::Next() {
  const std::uint32_t left = end - at;
  std::span<const std::uint8_t> piece = run->scanner.Held(at);
  piece = piece.first(piece.size() >= left ? left : piece.size() / kDigestBlock * kDigestBlock);
  if (piece.empty() && left > 0) {
    unsigned char* const bytes = run->pieces.data() + pieceAt;
    piece = {bytes, std::min(left, pieceRoom)};
    run->scanner.ReadAt(at, bytes, static_cast<std::uint32_t>(piece.size()));
  }
  parser->Feed(piece);
  at += static_cast<std::uint32_t>(piece.size());
  run->digested += static_cast<std::uint32_t>(piece.size());
  run->progress.Reached(run->digested);
  return piece;
}

bool TransactionRun::IsWhole(std::size_t i, std::int32_t remaining) const {
  const Member& member = found[i];
  return std::memcmp(member.digest, member.wanted, sizeof member.digest) == 0 &&
         member.parser->Stopped() == RecordParser::Stop::None && member.parser->AtBoundary() &&
         std::int64_t{remaining} >= static_cast<std::int64_t>(member.entries.size()) + 2;
}
