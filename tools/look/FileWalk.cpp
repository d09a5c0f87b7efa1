#include "tools/look/FileWalk.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <vector>

#include "md5/MD5.h"
#include "pack/format/TornCommit.h"
#include "tools/Console.h"

namespace tool {
namespace {

constexpr size_t kMostAtOnce = 16;       // transactions digested side by side
constexpr uint64_t kLargeRecord = 4096;  // from here on, heads are read alone
constexpr size_t kPieceSize = size_t{64} * 1024;

// The body of a transaction, for DigestMany.
class Body final : public MD5Source {
 public:
  Body(SalvageFile& file, const WalkedTransaction& transaction,
       const std::function<void(uint64_t)>& progress)
      : file_(file),
        at_(transaction.bodyOffset()),
        end_(at_ + transaction.bodySize()),
        progress_(progress),
        piece_(std::min<uint64_t>(kPieceSize, transaction.bodySize())) {}

  std::span<const uint8_t> Next() override {
    const size_t size = std::min<uint64_t>(piece_.size(), end_ - at_);
    file_.Read(at_, piece_.data(), size);
    at_ += size;
    if (progress_) progress_(size);
    return {piece_.data(), size};
  }

 private:
  SalvageFile& file_;
  uint64_t at_;
  const uint64_t end_;
  const std::function<void(uint64_t)>& progress_;
  std::vector<uint8_t> piece_;
};

class Walker {
 public:
  Walker(SalvageFile& file, const FileHead& head, const WalkOptions& options)
      : file_(file),
        options_(options),
        limit_(file.size()),
        endOffset_(head.header.endOffset),
        isPack_(head.header.mode == 1),
        remaining_(head.header.recordCount) {}

  Walked Run() {
    uint64_t at = walked_.end;
    if (static_cast<int32_t>(remaining_) < 0) {
      remaining_ = 0;
      walked_.damage = Damage{at, "the header counts more records than any file has"};
    }
    while (remaining_ > pendingCount_ && !walked_.damage) {
      if (!ParseTransaction(at)) break;
      at = pending_.empty() ? walked_.end : pending_.back().transaction.end;
      if (pending_.size() == kMostAtOnce) Deliver();
    }
    const std::optional<Damage> broken = std::move(broken_);
    Deliver();
    if (!walked_.damage) walked_.damage = broken;
    if (walked_.damage && remaining_ != 0) JudgeRest();
    return std::move(walked_);
  }

 private:
  struct Pending {
    WalkedTransaction transaction;
    format::TransactionBlock block;
    bool isCounted = true;  // else the header's count ends inside it
  };

  bool BreakOff(uint64_t at, std::string what) {
    broken_ = Damage{at, std::move(what)};
    return false;
  }

  // Parses the transaction at `at`. Returns false where the records break off, or where the count
  // ends inside it.
  bool ParseTransaction(uint64_t at) {
    std::array<unsigned char, format::kStartSize> head = {};
    const uint64_t left = limit_ - std::min(at, limit_);
    if (left < format::kOpHeaderSize) return BreakOff(at, "the file ends before the records do");
    std::copy_n(file_.From(at, head.size()).begin(), std::min<uint64_t>(left, head.size()),
                head.begin());
    const auto op = format::OpHeader::Decode(head.data());
    const auto block = format::TransactionBlock::Decode(&head[format::kOpHeaderSize]);
    if (op.op == format::kOpStore || op.op == format::kOpDelete) return TakeSingle(at);
    if (op.op != format::kOpStartTransaction) return BreakOff(at, "no transaction starts here");
    if (left < format::kStartSize || block.length > left - format::kStartSize)
      return BreakOff(at, "a transaction that runs past the end of the file");
    if (block.length == 0) return BreakOff(at, "a transaction that was not ended");
    Pending found = {
        {at, at + format::kStartSize + block.length + format::kEndSize, op.transactionId}, block};
    return Parse(found);
  }

  // The count of the header comes before what is wrong with the records: a load looks no further.
  bool Parse(Pending& found) {
    WalkedTransaction& transaction = found.transaction;
    const uint64_t bodyEnd = transaction.end - format::kEndSize;
    const uint64_t stop =
        VisitRecords(file_, transaction.bodyOffset(), bodyEnd, [&](const WalkedRecord& record) {
          ++(record.isStore ? transaction.storeCount : transaction.deleteCount);
          transaction.blobBytes += record.blobSize;
          return true;
        });
    const int32_t next = OpAt(stop);
    const bool runsPast = bodyEnd - stop >= format::kStoreHeadSize && next == format::kOpStore;
    const uint64_t counted = remaining_ - pendingCount_;
    found.isCounted = transaction.recordCount() + (runsPast ? 1 : 0) <= counted;
    if (found.isCounted && stop != bodyEnd)
      return BreakOff(stop, runsPast ? "a record that runs past its transaction"
                                     : "no record of a transaction");
    if (found.isCounted && (limit_ - stop < format::kEndSize || next != format::kOpEndTransaction))
      return BreakOff(stop, "no end record");
    pendingCount_ += found.isCounted ? transaction.recordCount() : 0;
    pending_.push_back(found);
    return found.isCounted;
  }

  // Zeros stand past the end of the file.
  int32_t OpAt(uint64_t at) const {
    std::array<unsigned char, format::kOpHeaderSize> bytes;
    file_.Read(at, bytes.data(), bytes.size());
    return format::OpHeader::Decode(bytes.data()).op;
  }

  // A record outside any transaction. No store writes one; it counts if it is what it says.
  bool TakeSingle(uint64_t at) {
    Deliver();
    if (walked_.damage) return false;
    WalkedRecord single;
    const uint64_t stop = VisitRecords(file_, at, limit_, [&single](const WalkedRecord& record) {
      const bool isFirst = single.offset == 0;
      if (isFirst) single = record;
      return isFirst;
    });
    if (stop == at) return BreakOff(at, "a record that runs past the end of the file");
    if (options_.digest && single.isStore &&
        file_.Digest(single.dataOffset(), single.blobSize) != single.hash)
      return BreakOff(at, "a record outside a transaction that does not match its hash");
    walked_.end = single.end();
    ++walked_.recordCount;
    --remaining_;
    transactionsBehindSingle_ = 0;
    if (options_.record) options_.record(single);
    return true;
  }

  void JudgeRest() {
    const torn::Rest rest = {limit_, transactionsBehindSingle_, walked_.end, endOffset_,
                             remaining_};
    walked_.lastIsTorn = !isPack_ && torn::Judge(rest, [this](uint32_t offset, uint32_t least) {
                                       return file_.From(offset, least);
                                     }).isTorn;
    if (walked_.lastIsTorn)
      walked_.damage->what = torn::kText;
    else if (!isPack_)
      walked_.damage->what += fmt::format(
          "; {} that the header counts, of at most {}, are not there whole",
          Count(remaining_, "record"), Count(torn::MostTransactions(remaining_), "transaction"));
  }

  // Digests what is pending and hands over what is whole.
  void Deliver() {
    std::vector<std::array<uint8_t, format::kDigestSize>> digests(pending_.size());
    if (options_.digest) DigestPending(digests);
    for (size_t i = 0; i < pending_.size(); ++i) {
      const auto& [transaction, block, isCounted] = pending_[i];
      if (options_.digest && digests[i] != std::to_array(block.digest)) {
        walked_.damage = Damage{transaction.offset, "a transaction that does not match its digest"};
        if (isCounted) walked_.mismatched = transaction;
        break;
      }
      if (!isCounted) {
        remaining_ = 0;
        break;
      }
      walked_.end = transaction.end;
      walked_.recordCount += transaction.recordCount();
      ++walked_.transactionCount;
      ++transactionsBehindSingle_;
      remaining_ -= transaction.recordCount();
      if (options_.transaction) options_.transaction(transaction);
      if (options_.record)
        VisitRecords(file_, transaction.bodyOffset(), transaction.end - format::kEndSize,
                     [this](const WalkedRecord& record) {
                       options_.record(record);
                       return true;
                     });
    }
    pending_.clear();
    pendingCount_ = 0;
  }

  void DigestPending(std::vector<std::array<uint8_t, format::kDigestSize>>& digests) {
    std::vector<std::unique_ptr<Body>> bodies;
    std::vector<MD5Message> messages;
    for (size_t i = 0; i < pending_.size(); ++i) {
      bodies.push_back(std::make_unique<Body>(file_, pending_[i].transaction, options_.progress));
      messages.push_back({nullptr, 0, digests[i].data(), bodies.back().get()});
    }
    DigestMany(messages.data(), messages.size());
  }

  SalvageFile& file_;
  const WalkOptions& options_;
  const uint64_t limit_;       // the file's size
  const uint64_t endOffset_;   // the header's
  const bool isPack_;          // of one transaction, which nothing can tear
  uint64_t remaining_;         // records that the header counts behind what was delivered
  uint64_t pendingCount_ = 0;  // records of what is pending
  uint64_t transactionsBehindSingle_ = 0;
  std::vector<Pending> pending_;
  std::optional<Damage> broken_;
  Walked walked_;
};

}  // namespace

uint64_t VisitRecords(SalvageFile& file, uint64_t at, uint64_t bodyEnd,
                      const std::function<bool(const WalkedRecord&)>& visit) {
  uint64_t skipped = 0;  // with the record before
  while (bodyEnd - at >= format::kDeleteSize) {
    std::array<unsigned char, format::kStoreHeadSize> bytes;
    if (skipped < kLargeRecord) file.From(at, bytes.size());  // moves the window along
    file.Read(at, bytes.data(), bytes.size());
    const auto head = format::RecordHead::Decode(bytes.data());
    WalkedRecord record = {at, head.op.transactionId, blobring::Hash(std::to_array(head.hash)),
                           head.op.op == format::kOpStore, head.size};
    const uint64_t size = record.end() - at;
    if ((head.op.op != format::kOpStore && head.op.op != format::kOpDelete) || size > bodyEnd - at)
      return at;
    if (!visit(record)) return at;
    at += size;
    skipped = size;
  }
  return at;
}

Walked Walk(SalvageFile& file, const FileHead& head, const WalkOptions& options) {
  return Walker(file, head, options).Run();
}

}  // namespace tool
