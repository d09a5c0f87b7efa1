#include "tools/report/Collect.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <filesystem>
#include <map>

#include "tools/base/Console.h"
#include "tools/base/Interrupt.h"
#include "tools/report/Regions.h"
#include "tools/view/Faults.h"
#include "tools/view/JsonObjects.h"
#include "tools/view/Naming.h"
#include "tools/view/Rest.h"
#include "tools/view/StoreView.h"

namespace tool {
namespace {

constexpr uint64_t kBinsOfFile = 1000;
constexpr uint64_t kBinsOfStore = 16000;  // keeps the page of a store of many slots small
constexpr size_t kTransactionBins = 200;

using State = RegionState;

struct Totals {
  uint64_t stores = 0;
  uint64_t storedBytes = 0;
  uint64_t deletes = 0;
  uint64_t deletedBytes = 0;

  void operator+=(const Totals& other) {
    stores += other.stores;
    storedBytes += other.storedBytes;
    deletes += other.deletes;
    deletedBytes += other.deletedBytes;
  }
};

class Collector {
 public:
  Collector(const StoreView& view, bool blobsToo)
      : view_(view), faults_(FindFaults(view, blobsToo)) {
    for (const BlobFault& fault : faults_) {
      // Of a fault without a blob at least the header of a record is shown.
      uint64_t& end = faultEnds_[fault.path][fault.offset];
      end = std::max(end, fault.offset + format::kStartSize + fault.size);
    }
    const uint64_t now = static_cast<uint64_t>(
        std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()));
    std::array<char, HOST_NAME_MAX + 1> host = {};
    ::gethostname(host.data(), host.size() - 1);
    document_.push_back(
        {{"type", "report"},
         {"version", BLOBRING_VERSION},
         {"host", host.data()},
         {"path", std::filesystem::absolute(view.path()).lexically_normal().string()},
         {"time", TimeOf(static_cast<int64_t>(now)).value_or("")}});
    for (Json& object : StatObjects(view)) document_.push_back(std::move(object));
    for (const BlobFault& fault : faults_) document_.push_back(FaultObject(fault));
    document_.push_back({{"type", "check"},
                         {"store", view.path()},
                         {"blobs", view.blobs().size()},
                         {"live_bytes", view.liveBytes()},
                         {"blobs_read", blobsToo},
                         {"faults", faults_.size()},
                         {"sound", faults_.empty() && !view.damaged()}});
    for (size_t i = 0; i < view.files().size(); ++i) AddFile(i);
    AddTransactions();
  }

  Document Take() { return std::move(document_); }

 private:
  bool IsCurrent(size_t index) const {
    return std::find(view_.current().begin(), view_.current().end(), index) !=
           view_.current().end();
  }

  void AddFile(size_t index) {
    const SlotFile& slotFile = view_.files()[index];
    const uint64_t bins = std::clamp(kBinsOfStore / view_.files().size(), uint64_t{8}, kBinsOfFile);
    if (slotFile.status.size == 0) return;
    Regions regions(slotFile.status.size, bins);
    if (slotFile.status.state == FileStatus::State::kDamaged && !IsCurrent(index)) {
      regions.AddUpTo(slotFile.status.size, State::kDamaged);
    } else {
      SalvageFile file(slotFile.path);
      if (view_.isWalked(index))
        AddWalked(index, file, regions);
      else
        AddUnread(index, file, regions);
      AddRest(file, view_.files()[index].status.header, IsCurrent(index), regions);
    }
    for (const Region& region : regions.list())
      document_.push_back({{"type", "region"},
                           {"file", slotFile.path},
                           {"begin", region.begin},
                           {"end", region.end},
                           {"state", NameOf(region.state)},
                           {"live_bytes", region.liveBytes}});
  }

  // What was committed of it; of a pack that a repack began, nothing.
  void AddUnread(size_t index, const SalvageFile& file, Regions& regions) const {
    const format::FileHeader& header = view_.files()[index].status.header;
    const bool isBegun = index % 2 == 0 && header.sequence == format::kSequenceReset;
    const uint64_t end = isBegun ? format::kFileHeaderSize : header.endOffset;
    regions.AddUpTo(std::min(end, file.Length()), view_.IsNotShown(index) ? State::kUnloaded
                                                  : end <= format::kFileHeaderSize ? State::kFree
                                                                                   : State::kOlder);
  }

  void AddWalked(size_t index, SalvageFile& file, Regions& regions) {
    const SlotFile& slotFile = view_.files()[index];
    const Walked& walked = view_.walked(index);
    const std::map<uint64_t, uint64_t>& faults = faultEnds_[slotFile.path];
    const bool isCurrent = IsCurrent(index);
    const State whole = isCurrent ? State::kLive : State::kUnloaded;
    regions.AddUpTo(format::kFileHeaderSize, whole);
    WalkOptions options;
    options.digests = Digests::kIgnore;
    options.record = [&](const format::Record& record) {
      if (record.End() > walked.end) return;  // behind damage that only a digest shows
      ThrowIfInterrupted();
      if (isCurrent) Count(record);
      if (faults.contains(record.offset)) {
        regions.AddUpTo(record.offset, whole);
        regions.AddUpTo(record.End(), State::kDamaged);
      } else {
        regions.AddUpTo(record.End(), !isCurrent              ? State::kUnloaded
                                      : IsLive(index, record) ? State::kLive
                                                              : State::kDead);
      }
    };
    Walk(file, slotFile.status, options);
    regions.AddUpTo(walked.end, regions.list().back().state == State::kDead ? State::kDead : whole);
    if (!walked.damage) return;
    const uint64_t end = std::min<uint64_t>(slotFile.status.header.endOffset, file.Length());
    if (walked.lastIsTorn) return regions.AddUpTo(end, State::kUncommitted);
    for (auto at = faults.lower_bound(walked.end); at != faults.end() && at->first < end; ++at) {
      regions.AddUpTo(at->first, State::kUnloaded);
      regions.AddUpTo(std::min(at->second, file.Length()), State::kDamaged);
    }
    regions.AddUpTo(end, State::kUnloaded);
  }

  bool IsLive(size_t index, const format::Record& record) const {
    const ViewedBlob* const blob = record.IsStore() ? view_.Find(HashOf(record)) : nullptr;
    return blob != nullptr && blob->file == index && blob->offset == record.offset;
  }

  static void AddRest(SalvageFile& file, const format::FileHeader& header, bool isCurrent,
                      Regions& regions) {
    using Kind = Rest::Kind;
    const uint64_t begin = regions.end();
    uint64_t end = begin;
    const auto extend = [&end](const format::Record& record, auto) { end = record.End(); };
    const Kind kind = RestOf(file, header, begin, extend).kind;
    // What an older file left behind may look like a transaction whose header was not written.
    if (kind == Kind::kUnfinished || kind == Kind::kUnfinishedRepack ||
        (kind == Kind::kUncounted && isCurrent))
      regions.AddUpTo(std::min(std::max(end, begin + format::kStartSize), file.Length()),
                      State::kUncommitted);
    const Kind last = RestOf(file, header, regions.end(), [](const auto&, auto) {}).kind;
    regions.AddUpTo(file.Length(), last == Kind::kZeros ? State::kFree : State::kOlder);
  }

  void Count(const format::Record& record) {
    Totals& totals = totals_[record.op.transactionId];
    if (record.IsStore()) {
      ++totals.stores;
      totals.storedBytes += record.size;
      if (view_.Find(HashOf(record)) == nullptr) deadSizes_[HashOf(record)] = record.size;
      return;
    }
    ++totals.deletes;
    const ViewedBlob* const stored = view_.Find(HashOf(record));
    totals.deletedBytes += stored != nullptr ? stored->size : deadSizes_[HashOf(record)];
  }

  void AddTransactions() {
    const size_t binSize = (totals_.size() + kTransactionBins - 1) / kTransactionBins;
    for (auto at = totals_.begin(); at != totals_.end();) {
      const int64_t first = at->first;
      int64_t last = first;
      uint64_t count = 0;
      Totals totals;
      for (; count < binSize && at != totals_.end(); ++at, ++count) {
        last = at->first;
        totals += at->second;
      }
      const auto time = [](int64_t id) {
        const std::optional<std::string> text = TimeOf(id);
        return text ? Json(*text) : Json();
      };
      document_.push_back({{"type", "transaction_bin"},
                           {"first_id", first},
                           {"last_id", last},
                           {"first_time", time(first)},
                           {"last_time", time(last)},
                           {"transactions", count},
                           {"stores", totals.stores},
                           {"stored_bytes", totals.storedBytes},
                           {"deletes", totals.deletes},
                           {"deleted_bytes", totals.deletedBytes}});
    }
  }

  const StoreView& view_;
  std::vector<BlobFault> faults_;
  std::map<std::string, std::map<uint64_t, uint64_t>> faultEnds_;  // by path, then by offset
  std::map<int64_t, Totals> totals_;                               // by transaction id
  std::map<blobring::Hash, uint64_t> deadSizes_;
  Document document_;
};

}  // namespace

Document Collect(const StoreOptions& at, bool blobsToo) {
  StoreView view(at);
  return view.Steadily([&] {
    Document document = Collector(view, blobsToo).Take();
    view.RequireSteady(true);
    return document;
  });
}

}  // namespace tool
