#include "tools/SalvageScan.h"

#include <array>
#include <bit>
#include <cstring>

namespace tool {
namespace {

using Kind = SalvagedRecord::Kind;

// How much of its size a gap may cost in vain for each class of blob sizes: false large
// blobs must not use up what small ones need.
constexpr uint64_t kProbeFactor = 2;

// False for zeros, small integers and the like, which look like records most often.
// Wrong about one digest in 10^13.
bool LooksLikeDigest(const unsigned char* bytes) {
  uint64_t seen = 0;
  for (size_t i = 0; i < format::kDigestSize; ++i) seen |= uint64_t{1} << (bytes[i] % 64);
  return std::popcount(seen) >= 5;
}

blobring::Hash HashAt(const unsigned char* bytes) {
  blobring::Hash hash;
  std::copy_n(bytes, blobring::Hash::kSize, hash.data());
  return hash;
}

// The first non-zero byte from `at` on, or up to 7 bytes before it.
size_t SkipZeros(Bytes bytes, size_t at) {
  for (uint64_t word = 0; at + sizeof word <= bytes.size(); at += sizeof word) {
    std::memcpy(&word, &bytes[at], sizeof word);
    if (word != 0) break;
  }
  return at;
}

// What may be a record; zeros past the end of the file.
struct Head {
  std::array<unsigned char, format::kStartSize> bytes = {};
  uint64_t left = 0;  // bytes from here to the end of the file
  uint64_t size = 0;  // of the record, which can be more than are left; 0 if this is none

  format::OpHeader op() const { return format::OpHeader::Decode(bytes.data()); }
  const unsigned char* body() const { return &bytes[format::kOpHeaderSize]; }
  uint32_t blobSize() const { return format::Get32(body() + format::kHashSize); }
  bool isStore() const { return op().op == format::kOpStore; }
};

class Scanner {
 public:
  Scanner(SalvageFile& file, SalvageScan& scan) : file_(file), scan_(scan) {}

  void Run();

 private:
  Head HeadAt(uint64_t at) const;
  bool LooksLikeRecord(uint64_t at) const;
  uint64_t Follow(uint64_t at, uint64_t limit);
  bool FollowStore(uint64_t at, const Head& head, uint64_t limit);
  void FollowStructure(uint64_t at, const Head& head, uint64_t limit);
  void StartTransaction(uint64_t at, const Head& head, uint64_t limit);
  void AcceptBlob(uint64_t at, const Head& head);
  void Probe(uint64_t at, uint64_t end);
  bool IsBlob(uint64_t at, const Head& head, uint64_t end);
  uint64_t NextCandidate(uint64_t at, uint64_t end);

  SalvageFile& file_;
  SalvageScan& scan_;
  Ranges known_;     // all records but broken ones
  Ranges verified_;  // those that match a hash or their transaction's digest
  // Of the last transaction, where its end record lies; of the last complete one, its end.
  uint64_t transaction_ = 0;
  uint64_t completeEnd_ = 0;
  // Bytes digested in vain in a gap, by successor and size class, and the most of each.
  std::array<std::array<uint64_t, 17>, 2> spent_ = {};
  uint64_t mostInVain_ = 0;
};

Head Scanner::HeadAt(uint64_t at) const {
  constexpr std::array<uint64_t, 4> kSizes = {format::kStoreHeadSize, format::kDeleteSize,
                                              format::kStartSize, format::kEndSize};
  Head head;
  head.left = file_.size() - at;
  file_.Read(at, head.bytes.data(), std::min<uint64_t>(head.left, head.bytes.size()));
  const auto op = static_cast<uint32_t>(head.op().op);
  if (op < kSizes.size() && kSizes[op] <= head.left)
    head.size = kSizes[op] + (head.isStore() ? head.blobSize() : 0);
  return head;
}

// Whether what lies here can be the successor of a record.
bool Scanner::LooksLikeRecord(uint64_t at) const {
  if (at == file_.size() || at == scan_.committedEnd) return true;
  const Head head = HeadAt(at);
  const bool hasHash = head.isStore() || head.op().op == format::kOpDelete;
  return head.size != 0 && head.size <= head.left && (!hasHash || LooksLikeDigest(head.body()));
}

void Scanner::AcceptBlob(uint64_t at, const Head& head) {
  scan_.records.push_back({at, head.blobSize(), Kind::kBlob, HashAt(head.body())});
  ++scan_.blobs;
  Add(verified_, at, at + head.size);
}

// Returns whether the records go on behind this one. If nothing is there, it is left
// to Probe(), which bounds what is digested in vain, and counts as broken until then.
bool Scanner::FollowStore(uint64_t at, const Head& head, uint64_t limit) {
  const bool goesOn = head.size <= limit - at && LooksLikeRecord(at + head.size);
  if (goesOn && file_.Digest(at + format::kStoreHeadSize, head.blobSize()) == HashAt(head.body())) {
    AcceptBlob(at, head);
    return true;
  }
  if (!LooksLikeDigest(head.body())) return false;
  scan_.records.push_back({at, head.blobSize(), Kind::kBroken, HashAt(head.body())});
  return goesOn;
}

// Transactions do not nest; without that rule, false ones could make the time grow with
// the square of their number.
void Scanner::StartTransaction(uint64_t at, const Head& head, uint64_t limit) {
  const auto block = format::TransactionBlock::Decode(head.body());
  const uint64_t body = at + format::kStartSize;
  const uint64_t end = body + block.length;
  if (at >= transaction_ && end + format::kEndSize <= limit &&
      HeadAt(end).op().op == format::kOpEndTransaction) {
    transaction_ = end;
    if (file_.Digest(body, block.length) == HashAt(block.digest)) {
      completeEnd_ = end + format::kEndSize;
      Add(verified_, at, completeEnd_);
      ++scan_.completeTransactions;
      return;
    }
  }
  if (at < scan_.committedEnd) ++scan_.incompleteTransactions;
}

void Scanner::FollowStructure(uint64_t at, const Head& head, uint64_t limit) {
  Add(known_, at, at + head.size);
  if (at + head.size <= scan_.committedEnd) ++scan_.recordCount;
  if (head.op().op == format::kOpStartTransaction) StartTransaction(at, head, limit);
  if (head.op().op != format::kOpDelete) return;
  ++scan_.deletions;
  if (at < completeEnd_) scan_.records.push_back({at, 0, Kind::kDelete, HashAt(head.body())});
}

// Returns where the records break off, or the limit.
uint64_t Scanner::Follow(uint64_t at, uint64_t limit) {
  while (at < limit) {
    file_.From(at, format::kStartSize);
    const Head head = HeadAt(at);
    if (head.size == 0 || Contains(known_, at))
      return at;  // nothing, or followed before from elsewhere
    if (!head.isStore())
      FollowStructure(at, head, limit);
    else if (!FollowStore(at, head, limit))
      return at;
    at += head.size;
  }
  return at;
}

// Whether there is a blob here, where nothing says that there must be one.
bool Scanner::IsBlob(uint64_t at, const Head& head, uint64_t end) {
  if (head.size > end - at || !LooksLikeDigest(head.body())) return false;
  uint64_t& spent =
      spent_[LooksLikeRecord(at + head.size) ? 1 : 0].at(std::bit_width(head.blobSize()) / 2);
  if (spent > mostInVain_) {
    scan_.stoppedProbing = scan_.stoppedProbing || at < scan_.committedEnd;
    return false;
  }
  if (file_.Digest(at + format::kStoreHeadSize, head.blobSize()) == HashAt(head.body()))
    return true;
  spent += head.blobSize();
  return false;
}

// The next offset that has the op of a store and a hash that is not all zeros, or `end`.
uint64_t Scanner::NextCandidate(uint64_t at, uint64_t end) {
  while (at + format::kStoreHeadSize <= end) {
    const Bytes window = file_.From(at, format::kStoreHeadSize);
    const uint64_t count = std::min<uint64_t>(window.size(), end - at) - format::kStoreHeadSize + 1;
    uint64_t i = 0;
    for (; i < count; ++i) {
      if (format::Get32(&window[i]) != format::kOpStore) continue;
      const size_t hashEnd = i + format::kOpHeaderSize + format::kHashSize;
      const size_t nonZero = SkipZeros(window, i + format::kOpHeaderSize);
      if (nonZero < hashEnd) return at + i;
      i += nonZero - hashEnd;  // up to there, all hashes are zeros
    }
    at += std::min(i, count);
  }
  return end;
}

void Scanner::Probe(uint64_t at, uint64_t end) {
  spent_ = {};
  mostInVain_ = kProbeFactor * (end - at);
  transaction_ = 0;
  while ((at = NextCandidate(at, end)) < end) {
    const Head head = HeadAt(at);
    const bool isBlob = IsBlob(at, head, end);
    if (isBlob) AcceptBlob(at, head);
    at = isBlob ? Follow(at + head.size, end) : at + 1;
  }
}

void Scanner::Run() {
  const uint64_t begin = std::min<uint64_t>(file_.size(), format::kFileHeaderSize);
  for (uint64_t at = begin; (at = Follow(at, file_.size())) < file_.size();) {
    const uint64_t next = at < scan_.committedEnd ? scan_.committedEnd : file_.size();
    at = transaction_ > at ? std::min(next, transaction_) : next;
  }
  for (const auto& [from, to] : Gaps(verified_, begin, file_.size())) Probe(from, to);
  // What counts as broken may have been found whole, or lie beside a record: a wrong size
  // can lead to a place that looks like one.
  std::vector<SalvagedRecord>& records = scan_.records;
  std::erase_if(records, [&](const SalvagedRecord& record) {
    return record.kind == Kind::kBroken &&
           (Contains(verified_, record.offset) || Contains(verified_, record.dataOffset() - 1));
  });
  std::sort(records.begin(), records.end(),
            [](const auto& a, const auto& b) { return a.offset < b.offset; });
  const auto isSame = [](const auto& a, const auto& b) { return a.offset == b.offset; };
  records.erase(std::unique(records.begin(), records.end(), isSame), records.end());
  for (const SalvagedRecord& record : records) {
    Add(known_, record.offset, record.end());
    if (record.kind != Kind::kDelete && scan_.IsCommitted(record)) ++scan_.recordCount;
  }
  scan_.noRecord = Gaps(known_, begin, file_.size());
}

}  // namespace

SalvageScan Scan(SalvageFile& file) {
  SalvageScan scan;
  scan.fileSize = scan.committedEnd = file.size();
  std::array<unsigned char, format::kFileHeaderSize> bytes = {};
  file.Read(0, bytes.data(), std::min<uint64_t>(file.size(), bytes.size()));
  scan.header = format::FileHeader::Decode(bytes.data());
  if (scan.header.endOffset >= bytes.size() && scan.header.endOffset <= file.size()) {
    scan.state = SalvageScan::Header::kSound;
    scan.committedEnd = scan.header.endOffset;
  } else if (file.size() > bytes.size() ||
             (file.size() == bytes.size() && SkipZeros(bytes, 0) < bytes.size())) {
    scan.state = SalvageScan::Header::kDamaged;
  }
  Scanner(file, scan).Run();
  scan.unreadable = file.unreadable();
  return scan;
}

}  // namespace tool
