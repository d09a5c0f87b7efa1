// prune: forgets old snapshots, and gives back the space of what no snapshot needs.
//
// Takes no lock; several at once are harmless. The rules are those of Remote.h.
#include <algorithm>

#include "pack/format/Format.h"
#include "tools/base/Console.h"
#include "tools/base/Json.h"
#include "tools/remote/Commands.h"
#include "tools/remote/Fetch.h"
#include "tools/remote/PackBuilder.h"

namespace tool::remote {
namespace {

constexpr double kMostDead = 0.4;  // of a pack; beyond, its live blobs move to another
constexpr uint64_t kMaxBatch = uint64_t{256} << 20;  // bytes that temporary files hold at a time
constexpr size_t kManySmallIndexes = 32;
constexpr size_t kSmallIndex = 16;  // packs
constexpr int kMostLooks = 3;
constexpr size_t kMostInTomb = 800;  // keys: kMaxAnswer holds them
constexpr uint64_t kPackOverhead =   // bytes of a pack that are no records
    format::kFileHeaderSize + format::kStartSize + format::kEndSize;

using Keys = std::set<std::string>;

class Pruner {
 public:
  Pruner(Remote& remote, const PruneOptions& options)
      : remote_(remote),
        options_(options),
        keepWithin_(options.keepWithin.empty() ? -1 : DurationOf(options.keepWithin)) {
    const auto limit = static_cast<double>(remote.config.pushSeconds);
    halfTime_ = BootSeconds() + limit / 2;
    remote.bucket.http().SetDeadline(BootSeconds() + limit);
    ShowRequests();
  }
  ~Pruner() { remote_.bucket.http().SetTick({}); }
  Pruner(const Pruner&) = delete;

  void Run() {
    Look();
    Choose();
    if (options_.dryRun) return;
    while (!ReadKept()) {
      Judge();
      Choose();
    }
    remote_.bucket.Delete({forgotten_.begin(), forgotten_.end()});
    Rewrite();
    if (onlyRepairs_) return;
    const std::vector<std::string> going(going_.begin(), going_.end());
    for (size_t begin = 0; begin < going.size(); begin += kMostInTomb) {
      const size_t end = std::min(going.size(), begin + kMostInTomb);
      remote_.bucket.Put("gc/" + Nonce() + ".tomb",
                         EncodeTomb({going.begin() + static_cast<ptrdiff_t>(begin),
                                     going.begin() + static_cast<ptrdiff_t>(end)}));
    }
    Bury();
  }

  ExitStatus Report() const {
    PrintObject({{"type", "prune"},
                 {"dry_run", options_.dryRun},
                 {"snapshots_kept", keptCount_},
                 {"snapshots_forgotten", forgotten_.size()},
                 {"packs_rewritten", rewrittenCount_},
                 {"packs_restored", restoredCount_},
                 {"marked", going_.size()},
                 {"marked_bytes", goingBytes_},
                 {"deleted", deletedCount_},
                 {"deleted_bytes", deletedBytes_}});
    const char* would = options_.dryRun ? "would be " : "";
    Inform("{} kept, {} {}forgotten", Count(keptCount_, "snapshot"), forgotten_.size(), would);
    Inform("{} {}marked, {}, to be deleted by a prune in {}; {} {}rewritten",
           Count(going_.size(), "object"), would, HumanSize(goingBytes_),
           HumanTime(static_cast<double>(remote_.config.graceSeconds)),
           Count(rewrittenCount_, "pack"), would);
    Inform("{} {}deleted, {}", Count(deletedCount_, "object"), would, HumanSize(deletedBytes_));
    if (restoredCount_ != 0)
      Say("{} that no index named: indexed, since snapshots lacked blobs",
          Count(restoredCount_, "pack"));
    if (remote_.mayBeWhole)
      Say("nothing was forgotten or deleted: what could not be read may be whole at the service");
    if (missingCount_ == 0) return remote_.mayBeWhole ? kFault : kSuccess;
    Say("the snapshots that stay name {} that {} in no sound pack: `blobring remote check` tells "
        "which; nothing is forgotten or deleted until a store that has {} pushes again",
        Count(missingCount_, "blob"), missingCount_ == 1 ? "is" : "are",
        missingCount_ == 1 ? "it" : "them");
    return kFault;
  }

 private:
  // Where neither blobs nor bytes to come are known.
  void ShowRequests() {
    Http& http = remote_.bucket.http();
    http.SetTick([this, &http] { progress_.Show(http.requests(), http.bytesReceived()); });
  }

  // Lists everything, tombs first and snapshots last. A push that ends meanwhile shows a snapshot
  // whose index was not there yet: then all is listed again.
  void Look() {
    for (int look = 1;; ++look) {
      tombs_ = remote_.ReadTombs();
      indexes_ = remote_.ReadIndexes(remote_.bucket.List("index/"));
      packs_ = remote_.bucket.List("packs/");
      ReadSnapshots();
      Judge();
      if (missingCount_ == 0 || look == kMostLooks) return;
    }
  }

  // Where what is needed can be had.
  void Judge() {
    usable_ = Merge(indexes_, [this](const std::string& pack, uint64_t size) {
      return IsSound(pack, size) && !IsTombed(pack);
    });
    tombed_ = Merge(indexes_, [this](const std::string& pack, uint64_t size) {
      return IsSound(pack, size) && IsTombed(pack);
    });
    missingCount_ = CountMissing();
    onlyRepairs_ = missingCount_ != 0 || remote_.mayBeWhole;
  }

  bool IsSound(const std::string& pack, uint64_t size) const {
    return remote_.FaultIn(packs_, pack, size).empty() && distrusted_.count(pack) == 0;
  }
  bool IsTombed(const std::string& pack) const { return tombs_.keys.count(PackKey(pack)) != 0; }

  void ReadSnapshots() {
    const Listing listing = remote_.bucket.List("snapshots/");
    const auto names = remote_.NamesOf(listing);
    std::map<std::string, Snapshot> headers = remote_.ReadHeaders(names);
    // What turns out not to be whole neither counts nor goes, and the choice is made again. A
    // header alone proves nothing: it may have arrived changed.
    Keys broken;
    for (bool isWhole = false; !isWhole;) {
      ChooseSnapshots(listing, headers);
      std::vector<SnapshotName> kept;
      for (const auto& [key, name] : names)
        if (forgotten_.count(key) == 0 && broken.count(key) == 0) kept.push_back(name);
      keptCount_ = kept.size();
      Union<blobring::Hash> needed;
      Keys read;
      remote_.ReadSnapshots(kept, [&](const std::string& key, const Snapshot& snapshot) {
        read.insert(key);
        needed.Add(snapshot.hashes);
      });
      needed_ = needed.Take();
      isWhole = read.size() == kept.size();
      for (const SnapshotName& name : kept)
        if (read.count(name.Key()) == 0) broken.insert(name.Key());
      for (const std::string& key : broken) headers.erase(key);
    }
  }

  // Of each store: the last N whole ones, those young enough, and partial ones that no whole one
  // followed. Without options all whole ones stay.
  void ChooseSnapshots(const Listing& listing, const std::map<std::string, Snapshot>& headers) {
    forgotten_.clear();
    struct Kept {
      uint64_t newer = 0;  // whole ones, than the one looked at
      std::set<int64_t> days;
      std::set<int64_t> weeks;
    };
    std::map<std::string, Kept> kept;  // of each store
    const bool hasRule = keepWithin_ >= 0 || options_.keepLast != 0 || options_.keepDaily != 0 ||
                         options_.keepWeekly != 0;
    for (const SnapshotName& name : remote_.NewestFirst(listing)) {
      const std::string key = name.Key();
      const auto header = headers.find(key);
      if (header == headers.end()) continue;
      Kept& of = kept[name.store];
      if (header->second.isPartial) {
        if (of.newer != 0) forgotten_.insert(key);
        continue;
      }
      const int64_t modified = listing.objects.at(key).modified;
      const int64_t day = modified / 86400;
      const bool isYoung = keepWithin_ >= 0 && listing.date - modified <= keepWithin_;
      const bool isLast = of.newer++ < options_.keepLast;
      const bool isDaily = of.days.size() < options_.keepDaily && of.days.insert(day).second;
      const bool isWeekly =  // from Monday on, as 1970 began with a Thursday
          of.weeks.size() < options_.keepWeekly && of.weeks.insert((day + 3) / 7).second;
      if (hasRule && !isYoung && !isLast && !isDaily && !isWeekly) forgotten_.insert(key);
    }
  }

  // Older than W, by the service's clock alone [R7]. Times are whole seconds.
  bool IsOld(const Object& object, const Listing& listing) const {
    return listing.date - object.modified > remote_.config.graceSeconds + 1;
  }

  // The garbage, and what must be copied before it goes.
  void Choose() {
    going_.clear();
    moved_.clear();
    rescued_.clear();
    kept_.clear();
    goingBytes_ = rewrittenCount_ = 0;
    const std::vector<uint64_t> sizes = usable_.PackSizes();
    // Of several copies the one whose pack has most that is needed: what an earlier prune copied
    // and did not come to mark is not copied again.
    std::vector<uint64_t> most(usable_.packs.size());  // bytes of records
    PlacesOf usable(usable_);
    PlacesOf dying(tombed_);
    for (const blobring::Hash& hash : needed_)
      for (const Place& place : usable(hash)) most[place.pack] += place.end() - place.offset;
    const auto isWorse = [&](const Place& a, const Place& b) {
      return most[a.pack] * sizes[b.pack] < most[b.pack] * sizes[a.pack];
    };
    std::vector<uint64_t> needed(usable_.packs.size());
    std::vector<Place> chosen;
    for (const blobring::Hash& hash : needed_) {
      const auto places = usable(hash);
      if (places.empty()) {
        const auto tombed = dying(hash);
        if (!tombed.empty()) rescued_.push_back(tombed[0]);
        continue;
      }
      const Place& best = *std::max_element(places.begin(), places.end(), isWorse);
      chosen.push_back(best);
      needed[best.pack] += best.end() - best.offset;
    }
    if (onlyRepairs_) {
      keptCount_ += forgotten_.size();
      forgotten_.clear();
      return;
    }
    std::vector<bool> goes(usable_.packs.size());
    for (size_t i = 0; i < usable_.packs.size(); ++i) {
      const std::string key = PackKey(usable_.packs[i]);
      const double live =
          static_cast<double>(needed[i]) / static_cast<double>(sizes[i] - kPackOverhead);
      goes[i] = live < 1 - kMostDead && IsOld(packs_.objects.at(key), packs_);
      if (!goes[i]) continue;
      if (needed[i] != 0) ++rewrittenCount_;
      Mark(key);
    }
    for (const Place& place : chosen) {
      const auto copies = usable(place.hash);
      if (goes[place.pack])
        moved_.push_back(place);
      else if (std::any_of(copies.begin(), copies.end(),
                           [&goes](const Place& copy) { return goes[copy.pack]; }))
        kept_.push_back(place);
    }
    const Keys indexed = IndexedPacks();
    for (const auto& [key, object] : packs_.objects)
      if (indexed.count(key) == 0 && tombs_.keys.count(key) == 0 && !NameIn(key).empty() &&
          IsOld(object, packs_))
        Mark(key);
    ChooseIndexes();
  }

  // Reads copies that stay, where others go [R9]. False if a pack does not hold what an index says:
  // it is not relied on, and all is to be chosen again.
  bool ReadKept() {
    Keys bad;
    Fetch(
        remote_, usable_, kept_, [](const FetchedBlob&) {}, bad);
    for (const std::string& pack : bad) {
      remote_.Reject(PackKey(pack) + " does not hold what an index says");
      distrusted_.insert(pack);
    }
    return bad.empty();
  }

  Keys IndexedPacks() const {
    Keys keys;
    for (const auto& [name, index] : indexes_)
      for (const std::string& pack : index.packs) keys.insert(PackKey(pack));
    return keys;
  }

  void Mark(const std::string& key) {
    going_.insert(key);
    const auto at = packs_.objects.find(key);
    if (at != packs_.objects.end()) goingBytes_ += at->second.size;
  }

  // An index that names a pack that is not to be used, and many small ones.
  void ChooseIndexes() {
    std::vector<std::string> small;
    for (const auto& [name, index] : indexes_) {
      if (tombs_.keys.count(IndexKey(name)) != 0) continue;
      const std::vector<uint64_t> sizes = index.PackSizes();
      bool isSound = true;
      for (size_t i = 0; i < sizes.size(); ++i)
        isSound = isSound && Stays(index.packs[i], sizes[i]);
      if (!isSound)
        Mark(IndexKey(name));
      else if (index.packs.size() < kSmallIndex)
        small.push_back(IndexKey(name));
    }
    if (small.size() > kManySmallIndexes)
      for (const std::string& key : small) Mark(key);
  }

  bool Stays(const std::string& pack, uint64_t size) const {
    return IsSound(pack, size) && !IsTombed(pack) && going_.count(PackKey(pack)) == 0;
  }

  // Copies what packs that go have of use, and indexes what no index that stays names.
  void Rewrite() {
    Index fresh;
    CopyBlobs(usable_, std::move(moved_), fresh);
    CopyBlobs(tombed_, std::move(rescued_), fresh);
    if (missingCount_ != 0) IndexOrphans(fresh);
    Keys named;
    for (const auto& [name, index] : indexes_)
      if (tombs_.keys.count(IndexKey(name)) == 0 && going_.count(IndexKey(name)) == 0)
        named.insert(index.packs.begin(), index.packs.end());
    Remote::Indexes parts = {{"fresh", std::move(fresh)}};
    parts["old"] = Merge(indexes_, [&](const std::string& pack, uint64_t size) {
      return Stays(pack, size) && named.count(pack) == 0;
    });
    std::map<std::string, size_t> placeCounts;  // of packs
    for (const auto& [name, index] : parts) {
      std::vector<size_t> counts(index.packs.size());
      for (const Place& place : index.places) ++counts[place.pack];
      for (size_t i = 0; i < counts.size(); ++i) placeCounts[index.packs[i]] += counts[i];
    }
    for (auto at = placeCounts.begin(); at != placeCounts.end();) {
      Keys here;
      for (size_t count = 0;
           at != placeCounts.end() && here.size() < kPacksInIndex && count < kPlacesInIndex; ++at) {
        here.insert(at->first);
        count += at->second;
      }
      Publish(
          Merge(parts, [&](const std::string& pack, uint64_t) { return here.count(pack) != 0; }));
    }
  }

  void Publish(Index index) {
    index.Sort();
    const std::string bytes = index.Encode();
    remote_.bucket.Put(IndexKey(DigestOf(bytes).text() + "-" + Nonce()), bytes);
  }

  // Packs whose index was lost may have what snapshots lack.
  void IndexOrphans(Index& fresh) {
    const Keys indexed = IndexedPacks();
    for (const auto& [key, object] : packs_.objects) {
      if (indexed.count(key) != 0 || tombs_.keys.count(key) != 0 || NameIn(key).empty()) continue;
      const auto file = std::make_shared<Spool>();
      remote_.bucket.StartGet(key, object.size, std::nullopt, file,
                              [&, key = key, file](Reply& reply) {
                                if (reply.status != 200) return;
                                const PackContents pack = ReadPack(key, *file);
                                for (const std::string& finding : pack.findings) Say("{}", finding);
                                if (!pack.findings.empty()) return;
                                fresh.Add(pack.index);
                                ++restoredCount_;
                              });
    }
    remote_.bucket.http().Finish();
    fresh.Sort();
    missingCount_ = CountMissing(&fresh);
  }

  uint64_t CountMissing(const Index* fresh = nullptr) const {
    PlacesOf inUsable(usable_);
    PlacesOf inTombed(tombed_);
    PlacesOf inFresh(fresh != nullptr ? *fresh : tombed_);
    const auto isMissing = [&](const blobring::Hash& hash) {
      return inUsable(hash).empty() && inTombed(hash).empty() && inFresh(hash).empty();
    };
    return static_cast<uint64_t>(std::count_if(needed_.begin(), needed_.end(), isMissing));
  }

  void CopyBlobs(const Index& from, std::vector<Place> places, Index& fresh) {
    if (places.empty()) return;
    std::ranges::sort(places, {}, &Place::InPacks);
    uint64_t bytes = 0;
    for (const Place& place : places) bytes += place.size;
    remote_.bucket.http().SetTick({});
    Progress progress("copying live blobs", places.size(), bytes);
    uint64_t most = kPackSize;
    for (auto begin = places.begin(); begin != places.end();) {
      uint64_t batchBytes = 0;
      auto end = begin;
      while (end != places.end() && batchBytes < most) batchBytes += end++->size;
      const double start = BootSeconds();
      CopyBatch(from, {begin, end}, fresh, progress);
      begin = end;
      // On a slow line few bytes at a time, so that what was copied can be indexed in time.
      if (BootSeconds() - start < static_cast<double>(remote_.config.pushSeconds) / 32)
        most = std::min(kMaxBatch, 2 * most);
      // From then on it is not lost when this prune does not come to its end.
      if (IsFull(fresh) || BootSeconds() > halfTime_) Publish(std::exchange(fresh, Index()));
    }
    ShowRequests();
  }

  void CopyBatch(const Index& from, std::vector<Place> places, Index& fresh, Progress& progress) {
    PackBuilder builder;
    Keys badPacks;
    Fetch(
        remote_, from, std::move(places),
        [&](const FetchedBlob& blob) {
          builder.Add(blob.place.hash, blob.transactionId, blob.data);
          progress.Advance(blob.data.size());
        },
        badPacks);
    if (!badPacks.empty())
      throw Fault("no pack was deleted: {} is gone or damaged, and snapshots need it",
                  *badPacks.begin());
    for (BuiltPack& pack : builder.Finish()) {
      fresh.Add(pack.index);
      remote_.bucket.Put(PackKey(pack.name), std::move(pack.file), pack.digest, [](Reply&) {});
    }
    remote_.bucket.http().Finish();
  }

  // Deletes what old tombs name [R4]: by now nothing needs it [R5], and every index that names it
  // has a tomb [R6].
  void Bury() {
    Keys dead;
    std::vector<std::string> emptied;
    for (const auto& [key, named] : tombs_.named) {
      if (!IsOld(tombs_.listing.objects.at(key), tombs_.listing)) continue;
      emptied.push_back(key);
      for (const std::string& name : named) {
        const auto at = packs_.objects.find(name);
        const bool isIndex = indexes_.count(NameIn(name)) != 0;
        if (at == packs_.objects.end() && !isIndex) continue;
        if (!dead.insert(name).second) continue;
        ++deletedCount_;
        if (at != packs_.objects.end()) deletedBytes_ += at->second.size;
      }
    }
    remote_.bucket.Delete({dead.begin(), dead.end()});
    remote_.bucket.Delete(emptied);
  }

  Remote& remote_;
  const PruneOptions& options_;
  int64_t keepWithin_;  // seconds; -1: not said
  double halfTime_ = 0;

  Tombs tombs_;
  Remote::Indexes indexes_;
  Listing packs_;
  std::vector<blobring::Hash> needed_;  // by the snapshots that stay; ascending
  Index usable_;                        // of packs that are there and that no tomb names
  Index tombed_;                        // of those that one names

  Keys distrusted_;             // packs that do not hold what an index says
  Keys forgotten_;              // snapshots
  Keys going_;                  // for the next tomb: keys of packs and indexes
  std::vector<Place> moved_;    // in usable_: live blobs of packs that go
  std::vector<Place> kept_;     // in usable_: stay, while other copies go
  std::vector<Place> rescued_;  // in tombed_: needed, and in no pack that stays
  uint64_t missingCount_ = 0;   // needed, and in no pack
  bool onlyRepairs_ = false;    // blobs were missing [R8], or could not be told to be
  uint64_t keptCount_ = 0;
  uint64_t rewrittenCount_ = 0;
  uint64_t restoredCount_ = 0;  // orphans that were indexed
  uint64_t goingBytes_ = 0;
  uint64_t deletedCount_ = 0;
  uint64_t deletedBytes_ = 0;
  Progress progress_{"pruning: requests", 0};
};

}  // namespace

ExitStatus Prune(const PruneOptions& options) {
  Remote remote(options.remote);
  Pruner pruner(remote, options);
  try {
    pruner.Run();
  } catch (const Lapsed&) {
    throw Fault("the prune takes longer than {}, in which it must be through; the next goes on",
                HumanTime(static_cast<double>(remote.config.pushSeconds)));
  } catch (const Interrupted&) {
    throw Interrupted("interrupted; nothing that a snapshot needs was touched. Run it again");
  }
  return pruner.Report();
}

}  // namespace tool::remote
