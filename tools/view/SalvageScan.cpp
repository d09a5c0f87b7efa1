#include "tools/view/SalvageScan.h"

#include <array>
#include <bit>
#include <cstring>

#include "pack/format/RecordReader.h"
#include "tools/base/Console.h"

namespace tool {
namespace {

using RecordKind = SalvagedRecord::Kind;

// How much of its size a gap may cost in vain for each class of blob sizes: false large blobs must
// not use up what small ones need.
constexpr uint64_t kProbeFactor = 2;

// False for zeros, small integers and the like, which look like records most often. Wrong about one
// digest in 10^13.
bool LooksLikeDigest(const unsigned char* bytes) {
  uint64_t seen = 0;
  for (size_t i = 0; i < format::kDigestSize; ++i) seen |= uint64_t{1} << (bytes[i] % 64);
  return std::popcount(seen) >= 5;
}

// What may be a record.
struct Candidate {
  format::RecordHeader header;
  format::TransactionBlock block;  // of a start record
  uint64_t size = 0;               // of the record; 0 if this is none

  int32_t op() const { return header.op.op; }
  blobring::Hash hash() const { return blobring::Hash(std::to_array(header.hash)); }
};

// Follows with the reader that a load uses what that finds whole, and then what is behind it.
class Scanner final : format::ReadListener {
 public:
  Scanner(const std::string& path, SalvageFile& file, SalvageScan& scan)
      : file_(file), scan_(scan), progress_("scanning " + path, 0) {}

  void Run() {
    const uint64_t size = file_.Length();
    const uint64_t begin = std::min<uint64_t>(size, format::kFileHeaderSize);
    uint64_t at = format::RecordReader(file_, scan_.status.header, *this).Run().end;
    while ((at = Follow(at, size)) < size) {
      const uint64_t next = at < scan_.committedEnd ? scan_.committedEnd : size;
      at = transaction_ > at ? std::min(next, transaction_) : next;
    }
    for (const auto& [from, to] : Gaps(verified_, begin, size)) Probe(from, to);
    FinishRecords();
    scan_.noRecord = Gaps(known_, begin, size);
  }

 private:
  void OnTransaction(size_t /*lane*/, const format::Transaction& transaction) override {
    AddStructure(transaction.offset, format::kStartSize);
    format::VisitRecords(file_, transaction.BodyOffset(), transaction.BodyEnd(),
                         [this](const format::Record& record) {
                           OnSingle(record);
                           return true;
                         });
    AddStructure(transaction.BodyEnd(), format::kEndSize);
    AddTransaction(transaction.offset, transaction.End());
  }
  void OnSingle(const format::Record& record) override {
    const format::RecordHeader& header = record;
    const Candidate found = {header, {}, record.End() - record.offset};
    if (record.IsStore()) {
      AddIfSound(record.offset, found);
    } else {
      AddStructure(record.offset, found.size);
      AddDelete(record.offset, found);
    }
  }
  void OnDigested(uint64_t end) override { progress_.ShowBytes(end, file_.Length()); }
  unsigned char* Lend(size_t size) override {
    lent_.resize(size);
    return lent_.data();
  }

  Candidate At(uint64_t at) const {
    constexpr std::array<uint64_t, 4> kSizes = {format::kStoreHeaderSize, format::kDeleteSize,
                                                format::kStartSize, format::kEndSize};
    std::array<unsigned char, format::kStartSize> bytes;
    file_.Read(at, bytes.data(), bytes.size());
    Candidate record = {format::RecordHeader::Decode(bytes.data()),
                        format::StartRecord::Decode(bytes.data()).block};
    const auto op = static_cast<uint32_t>(record.op());
    const bool hasHash = op == format::kOpStore || op == format::kOpDelete;
    if (op < kSizes.size() && kSizes[op] <= file_.Length() - at &&
        (!hasHash || LooksLikeDigest(record.header.hash)))
      record.size = kSizes[op] + record.header.size;
    return record;
  }

  // Whether what lies here can be the successor of a record.
  bool LooksLikeRecord(uint64_t at) const {
    if (at == file_.Length() || at == scan_.committedEnd) return true;
    const uint64_t size = At(at).size;
    return size != 0 && size <= file_.Length() - at;
  }

  // Adds the blob of a store record if the data matches its hash. Returns whether it does.
  bool AddIfSound(uint64_t at, const Candidate& record) {
    if (!file_.HasDigest(at + format::kStoreHeaderSize, record.header.size, record.header.hash))
      return false;
    scan_.records.push_back({at, record.header.size, RecordKind::kBlob, record.hash()});
    ++scan_.blobs;
    Add(verified_, at, at + record.size);
    return true;
  }

  // Returns where the records break off, or the limit.
  uint64_t Follow(uint64_t at, uint64_t limit) {
    while (at < limit) {
      progress_.ShowBytes(at, file_.Length());
      file_.From(at, format::kStartSize);  // moves the window along
      const Candidate record = At(at);
      if (record.size == 0 || Contains(known_, at)) break;  // none, or followed before
      if (record.op() != format::kOpStore)
        FollowStructure(at, record, limit);
      else if (!FollowStore(at, record, limit))
        break;
      at += record.size;
    }
    return at;
  }

  // Returns whether the records go on behind this one. If nothing is there, it is left to Probe(),
  // which bounds what is digested in vain, and counts as broken until then.
  bool FollowStore(uint64_t at, const Candidate& record, uint64_t limit) {
    const bool goesOn = record.size <= limit - at && LooksLikeRecord(at + record.size);
    if (goesOn && AddIfSound(at, record)) return true;
    scan_.records.push_back({at, record.header.size, RecordKind::kBroken, record.hash()});
    return goesOn;
  }

  void FollowStructure(uint64_t at, const Candidate& record, uint64_t limit) {
    AddStructure(at, record.size);
    if (record.op() == format::kOpStartTransaction) StartTransaction(at, record, limit);
    if (record.op() != format::kOpDelete) return;
    if (at < completeEnd_)
      AddDelete(at, record);
    else
      ++scan_.deletions;
  }

  void AddStructure(uint64_t at, uint64_t size) {
    Add(known_, at, at + size);
    if (at + size <= scan_.committedEnd) ++scan_.recordCount;
  }
  void AddDelete(uint64_t at, const Candidate& record) {
    ++scan_.deletions;
    scan_.records.push_back({at, 0, RecordKind::kDelete, record.hash()});
  }
  void AddTransaction(uint64_t begin, uint64_t end) {
    completeEnd_ = end;
    Add(verified_, begin, end);
    ++scan_.completeTransactions;
  }

  // Transactions do not nest; without that rule, false ones could make the time grow with the
  // square of their number.
  void StartTransaction(uint64_t at, const Candidate& record, uint64_t limit) {
    const uint64_t body = at + format::kStartSize;
    const uint64_t end = body + record.block.length;
    if (at >= transaction_ && end + format::kEndSize <= limit &&
        At(end).op() == format::kOpEndTransaction) {
      transaction_ = end;
      if (file_.HasDigest(body, record.block.length, record.block.digest))
        return AddTransaction(at, end + format::kEndSize);
    }
    if (at < scan_.committedEnd) ++scan_.incompleteTransactions;
  }

  void Probe(uint64_t at, uint64_t end) {
    spent_ = {};
    mostInVain_ = kProbeFactor * (end - at);
    transaction_ = 0;
    while ((at = NextCandidate(at, end)) < end) {
      progress_.ShowBytes(at, file_.Length());
      const Candidate record = At(at);
      at = ProbeBlob(at, record, end) ? Follow(at + record.size, end) : at + 1;
    }
  }

  // The next offset that has the op of a store and a hash that is not all zeros, or `end`.
  uint64_t NextCandidate(uint64_t at, uint64_t end) {
    while (at + format::kStoreHeaderSize <= end) {
      const auto window = file_.From(at, format::kStoreHeaderSize);
      const uint64_t count =
          std::min<uint64_t>(window.size(), end - at) - format::kStoreHeaderSize + 1;
      uint64_t i = 0;
      for (; i < count; ++i) {
        if (format::Get32(&window[i]) != format::kOpStore) continue;
        size_t nonZero = i + format::kOpHeaderSize;
        const size_t hashEnd = nonZero + format::kHashSize;
        while (nonZero + 8 <= window.size() && format::Get64(&window[nonZero]) == 0) nonZero += 8;
        if (nonZero < hashEnd) return at + i;
        i += nonZero - hashEnd;  // up to there, all hashes are zeros
      }
      at += std::min(i, count);
    }
    return end;
  }

  // Takes a blob where nothing says that there must be one.
  bool ProbeBlob(uint64_t at, const Candidate& record, uint64_t end) {
    if (record.size == 0 || record.size > end - at) return false;
    uint64_t& spent = spent_[LooksLikeRecord(at + record.size) ? 1 : 0].at(
        std::bit_width(record.header.size) / 2);
    if (spent > mostInVain_) {
      scan_.stoppedProbing = scan_.stoppedProbing || at < scan_.committedEnd;
      return false;
    }
    if (AddIfSound(at, record)) return true;
    spent += record.header.size;
    return false;
  }

  // Sorts the records and drops false positives: broken records since found whole, or overlapping a
  // verified one, since a wrong size can lead to a place that looks like a record.
  void FinishRecords() {
    std::vector<SalvagedRecord>& records = scan_.records;
    std::erase_if(records, [&](const SalvagedRecord& record) {
      return record.kind == RecordKind::kBroken &&
             (Contains(verified_, record.offset) || Contains(verified_, record.dataOffset() - 1));
    });
    std::sort(records.begin(), records.end(),
              [](const auto& a, const auto& b) { return a.offset < b.offset; });
    const auto isSame = [](const auto& a, const auto& b) { return a.offset == b.offset; };
    records.erase(std::unique(records.begin(), records.end(), isSame), records.end());
    for (const SalvagedRecord& record : records) {
      Add(known_, record.offset, record.end());
      if (record.kind != RecordKind::kDelete && scan_.IsCommitted(record)) ++scan_.recordCount;
    }
  }

  SalvageFile& file_;
  SalvageScan& scan_;
  Progress progress_;
  std::vector<unsigned char> lent_;
  Ranges known_;     // all records but broken ones
  Ranges verified_;  // those that match a hash or their transaction's digest
  // Of the last transaction, where its end record lies; of the last complete one, its end.
  uint64_t transaction_ = 0;
  uint64_t completeEnd_ = 0;
  // Bytes digested in vain in a gap, by successor and size class, and the most of each.
  std::array<std::array<uint64_t, 17>, 2> spent_ = {};
  uint64_t mostInVain_ = 0;
};

}  // namespace

SalvageScan Scan(const std::string& path) {
  SalvageFile file(path);
  SalvageScan scan;
  std::array<unsigned char, format::kFileHeaderSize> bytes;
  file.Read(0, bytes.data(), bytes.size());
  scan.status = FileStatus::Judge(bytes.data(), file.Length());
  scan.committedEnd = scan.IsSound() ? scan.status.header.endOffset : file.Length();
  Scanner(path, file, scan).Run();
  scan.unreadable = file.unreadable();
  return scan;
}

}  // namespace tool
