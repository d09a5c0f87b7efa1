#include "pack/format/TornCommit.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "pack/format/Format.h"

using format::OpHeader;
using format::RecordHeader;
using format::StartRecord;
using format::TransactionBlock;

namespace torn {

namespace {

constexpr std::uint32_t kSectorSize = 512;
constexpr std::uint32_t kEmptyTransaction = format::kStartSize + format::kEndSize;
constexpr std::uint32_t kIdOffset = 8;    // in an op header
constexpr std::uint32_t kSizeKnown = 34;  // with these bytes of a store record, as T3 limits it

// True if `records` records can take `size` bytes in all.
bool CanHold(std::uint32_t size, std::uint64_t records) {
  constexpr std::uint32_t kMore = format::kStoreHeaderSize - format::kDeleteSize;
  const std::uint64_t deletes = records * format::kDeleteSize;
  return size == deletes || (records > 0 && size >= deletes + kMore);
}

// Holds one transaction against T4 and T5.
class Transaction {
 public:
  Transaction(const Rest& rest, format::ByteSource& bytes)
      : source(bytes),
        begin(static_cast<std::uint32_t>(rest.begin)),
        end(static_cast<std::uint32_t>(rest.end)),
        body(begin + format::kStartSize),
        bodyEnd(end - format::kEndSize),
        records(rest.records - 2) {}

  bool IsTorn() {
    return StartFits() && RecordsFit() && EndFits() && (!blockIsWhole || bodyIsLost || Matches()) &&
           isLost;
  }

 private:
  // What the transaction has in one sector. All from zerosBegin on is zeros.
  struct Part {
    std::uint32_t begin = 0, end = 0, zerosBegin = 0;
    bool isFinished = false;  // a part of the block is in it
  };

  const Part& PartAt(std::uint32_t at) {
    if (at >= part.begin && at < part.end) return part;
    const std::uint32_t sector = at - at % kSectorSize;
    part.begin = std::max(begin, sector);
    part.end = std::min(end, sector + kSectorSize);
    const auto bytes = source.From(part.begin, part.end - part.begin).first(part.end - part.begin);
    part.zerosBegin = part.end;
    while (part.zerosBegin > part.begin && bytes[part.zerosBegin - 1 - part.begin] == 0)
      --part.zerosBegin;
    part.isFinished = false;
    for (std::uint32_t i = begin + format::kOpHeaderSize; i < body; ++i)
      if (i >= part.begin && i < part.end && bytes[i - part.begin] != 0) part.isFinished = true;
    return part;
  }

  // Whether this byte's sector may be one that did not reach the disk, or not since a record ended
  // at `at`.
  bool MayBeLost(std::uint32_t at) { return PartAt(at).zerosBegin == PartAt(at).begin; }
  bool MayBeLostFrom(std::uint32_t at) {
    return PartAt(at).zerosBegin <= at && !PartAt(at).isFinished;
  }
  bool MayLackSectorIn(std::uint32_t from, std::uint32_t to) {
    for (; from < to; from = PartAt(from).end)
      if (MayBeLost(from)) return true;
    return false;
  }

  // Whether the bytes at `at` are these, but for what is lost.
  bool Are(std::uint32_t at, std::span<const unsigned char> wanted) {
    std::array<unsigned char, format::kOpHeaderSize> bytes;
    std::copy_n(source.From(at, static_cast<std::uint32_t>(wanted.size())).begin(), wanted.size(),
                bytes.begin());
    for (std::uint32_t i = 0; i < wanted.size(); ++i) {
      if (bytes[i] == wanted[i]) continue;
      if (!MayBeLost(at + i)) return false;
      isLost = true;
    }
    return true;
  }

  bool StartFits() {
    const auto bytes = source.From(begin, format::kStartSize);
    id = OpHeader::Decode(bytes.data()).transactionId;
    std::array<unsigned char, format::kBlockSize> block;
    std::copy_n(bytes.begin() + format::kOpHeaderSize, block.size(), block.begin());
    unsigned char wanted[format::kOpHeaderSize];
    OpHeader{format::kOpStartTransaction, 0}.Encode(wanted);
    idIsKnown = !MayLackSectorIn(begin + kIdOffset, begin + format::kOpHeaderSize);
    if (!Are(begin, std::span(wanted).first(kIdOffset))) return false;

    TransactionBlock finished;
    finished.length = bodyEnd - body;
    unsigned char wantedBlock[format::kBlockSize];
    finished.Encode(wantedBlock);
    constexpr std::uint32_t kLength = 4, kDigest = 8;  // offsets
    std::uint32_t zeros = 0;
    for (std::uint32_t i = kLength; i < block.size(); ++i) {
      const bool isFinished = PartAt(begin + format::kOpHeaderSize + i).isFinished;
      if (isFinished && i < kDigest && block[i] != wantedBlock[i]) return false;
      // No digest has as many zeros.
      zeros = isFinished && block[i] == 0 ? zeros + 1 : 0;
      if (zeros == sizeof(std::uint64_t)) return false;
      if (!isFinished && (i >= kDigest || wantedBlock[i] != 0)) {
        blockIsWhole = false;
        isLost = true;
      }
    }
    std::copy_n(block.begin() + kDigest, digest.size(), digest.begin());
    return true;
  }

  // Up to where a record is lost that tells where the next one lies.
  bool RecordsFit() {
    std::uint32_t at = body;
    for (std::uint64_t left = records; left > 0; --left) {
      if (MayBeLostFrom(at) && RestFits(at, left)) return isLost = bodyIsLost = true;
      if (bodyEnd - at < format::kDeleteSize) return false;
      std::array<unsigned char, format::kStoreHeaderSize> bytes;
      std::copy_n(source.From(at, bytes.size()).begin(), bytes.size(), bytes.begin());
      const RecordHeader header = RecordHeader::Decode(bytes.data());
      const bool isStore = header.op.op == format::kOpStore;
      if (!isStore && header.op.op != format::kOpDelete) return false;
      unsigned char wanted[format::kOpHeaderSize];
      OpHeader{header.op.op, id}.Encode(wanted);
      if (!Are(at, std::span(wanted).first(idIsKnown ? sizeof wanted : kIdOffset))) return false;

      const std::uint32_t sectorEnd = PartAt(at).end;
      const std::uint32_t there = sectorEnd - at;
      if (there < (isStore ? kSizeKnown : format::kDeleteSize) && MayBeLost(sectorEnd)) {
        isLost = bodyIsLost = true;
        if (isStore)
          return bodyEnd - at >= format::kStoreHeaderSize + (left - 1) * format::kDeleteSize;
      }
      at += isStore ? format::kStoreHeaderSize : format::kDeleteSize;
      if (!isStore) continue;
      if (at > bodyEnd || header.size > bodyEnd - at) return false;
      if (!source.HasDigest(at, header.size, header.hash)) {
        if (!MayLackSectorIn(sectorEnd, at + header.size)) return false;
        isLost = bodyIsLost = true;
      }
      at += header.size;
    }
    return at == bodyEnd;
  }

  // Whether what is left of the body can be these records, if its first sector lacks them. A store
  // record whose visible part is zeros lacks nothing.
  bool RestFits(std::uint32_t at, std::uint64_t left) {
    const std::uint32_t visible = PartAt(at).end - at;
    std::array<unsigned char, format::kOpHeaderSize> store;
    OpHeader{format::kOpStore, id}.Encode(store.data());
    const bool showsStore =
        visible > store.size() || (visible > kIdOffset && !idIsKnown) ||
        std::any_of(store.begin(), store.begin() + visible, [](auto byte) { return byte != 0; });
    const std::uint32_t size = bodyEnd - at;
    if (showsStore) return CanHold(size, left);
    return size >= format::kDeleteSize && CanHold(size - format::kDeleteSize, left - 1);
  }

  bool EndFits() {
    std::uint32_t lost = 0;
    if (MayBeLostFrom(bodyEnd)) lost = std::min(PartAt(bodyEnd).end - bodyEnd, kIdOffset);
    isLost = isLost || lost > 0;
    unsigned char wanted[format::kOpHeaderSize];
    OpHeader{format::kOpEndTransaction, 0}.Encode(wanted);
    return Are(bodyEnd + lost, std::span(wanted).subspan(lost, kIdOffset - lost));
  }

  bool Matches() const { return source.HasDigest(body, bodyEnd - body, digest.data()); }

  format::ByteSource& source;
  const std::uint32_t begin, end, body, bodyEnd;
  const std::uint64_t records;  // without start and end
  Part part;
  std::int64_t id = 0;
  bool idIsKnown = false;
  std::array<unsigned char, format::kDigestSize> digest;
  bool isLost = false;  // something that was written
  bool bodyIsLost = false;
  bool blockIsWhole = true;
};

bool IsStartWithLength(const unsigned char* bytes, std::uint32_t wanted) {
  if (bytes[0] != format::kOpStartTransaction) return false;  // as most bytes tell
  const StartRecord record = StartRecord::Decode(bytes);
  return record.start.op == format::kOpStartTransaction && record.block.length == wanted;
}

// Whether a whole transaction that begins behind `at` ends at `end`.
bool WholeTransactionEndsAt(std::uint32_t end, std::uint32_t at, format::ByteSource& source) {
  if (OpHeader::Decode(source.From(end - format::kEndSize, format::kEndSize).data()).op !=
      format::kOpEndTransaction)
    return false;
  // Random bytes that decode as a start record rarely have a length that ends exactly at `end`.
  // The budget bounds the work for files forged to match everywhere.
  std::uint64_t budget = 2 * std::uint64_t{end - at};
  ++at;
  while (end - at >= format::kLeastTransaction) {
    const std::span<const unsigned char> held = source.From(at, format::kStartSize);
    const std::size_t places = std::min<std::size_t>(held.size() - format::kStartSize,
                                                     end - at - format::kLeastTransaction) +
                               1;
    std::size_t i = 0;
    while (i < places &&
           !IsStartWithLength(held.data() + i,
                              end - (at + static_cast<std::uint32_t>(i)) - kEmptyTransaction))
      ++i;
    at += static_cast<std::uint32_t>(i);
    if (i == places) continue;
    const TransactionBlock block = StartRecord::Decode(held.data() + i).block;
    if (block.length > budget) return false;
    budget -= block.length;
    if (source.HasDigest(at + format::kStartSize, block.length, block.digest)) return true;
    ++at;
  }
  return false;
}

}  // namespace

Verdict Judge(const Rest& rest, format::ByteSource& source) {
  const bool isThere = rest.end <= rest.fileSize && rest.end <= format::kMaxFileSize;  // T1
  if (!isThere || rest.begin > rest.end || rest.end - rest.begin < format::kLeastTransaction)
    return {};
  if (WholeTransactionEndsAt(static_cast<std::uint32_t>(rest.end),
                             static_cast<std::uint32_t>(rest.begin), source))
    return {false, true};
  return {rest.wholeTransactions > format::kCommitsBeforeBlank &&  // T2
              rest.records > 2 && rest.records <= format::kMostRecordsInBlank &&
              rest.end - rest.begin <= format::kBlankAhead &&  // T3
              Transaction(rest, source).IsTorn(),
          false};
}

}  // namespace torn
