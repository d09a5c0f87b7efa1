// push: what a store has and the remote lacks, then a snapshot.
//
// A push goes in rounds. Each begins by listing, ends with a snapshot, and must be through within T
// [R3]. A round that is not through after T/2 publishes what there is as a partial snapshot, which
// keeps a prune from taking it, and the next one goes on. A round that has no time left for that is
// followed by one that uploads no packs. When the store was repacked over what was being read, the
// next round reads it as it is then.
#include <fmt/chrono.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <ctime>

#include "tools/base/Console.h"
#include "tools/base/Json.h"
#include "tools/remote/Commands.h"
#include "tools/remote/Fetch.h"
#include "tools/remote/PackBuilder.h"
#include "tools/view/StoreView.h"

namespace tool::remote {
namespace {

constexpr int kMostIdleRounds = 3;
constexpr size_t kMaxMessage = 1000;
constexpr uint64_t kMaxCompared = uint64_t{64} << 20;  // bytes, before they are remembered
constexpr uint64_t kReadAtOnce = uint64_t{32} << 20;   // bytes that are digested side by side

std::string HostName() {
  char name[HOST_NAME_MAX + 1] = {};
  return ::gethostname(name, sizeof name - 1) == 0 ? name : "";
}

class Pusher {
 public:
  Pusher(const StoreOptions& at, Remote& remote, LocalState& state, const std::string& message)
      : at_(at), remote_(remote), state_(state), message_(message) {
    Look();
    remote.bucket.http().SetTick([this] { ShowProgress(); });
  }
  ~Pusher() { remote_.bucket.http().SetTick({}); }
  Pusher(const Pusher&) = delete;

  // Until a snapshot of all that can be read is done.
  void Run() {
    int idleRounds = 0;
    for (;;) {
      const uint64_t packsBefore = packCount_;
      bool hasChanged = false;
      try {
        if (Round()) return;
        ++idleRounds;
      } catch (const Lapsed&) {
        ++idleRounds;
        mayUpload_ = false;
      } catch (const StoreChanged&) {
        hasChanged = true;
      }
      remote_.bucket.http().EndRunning();
      if (hasChanged) {
        Inform("{} was repacked meanwhile; looking again", at_.directory);
        Look();
      }
      if (packCount_ != packsBefore) idleRounds = 0;
      if (idleRounds == kMostIdleRounds)
        throw Fault("the push takes longer than {}, in which it must be through; it is not done",
                    HumanTime(static_cast<double>(remote_.config.pushSeconds)));
    }
  }

  const SnapshotName& snapshot() const { return snapshot_; }
  bool isPartial() const { return isPartial_; }
  uint64_t packCount() const { return packCount_; }
  uint64_t blobCount() const { return blobCount_; }
  uint64_t blobBytes() const { return blobBytes_; }
  uint64_t damagedCount() const { return damaged_.size(); }
  uint64_t readableCount() const { return blobs_.size() - damaged_.size(); }

 private:
  void ShowProgress() {
    progress_->Show(doneCount_,
                    std::min(view_->liveBytes(),
                             doneBytes_ + remote_.bucket.http().bytesSent() - bytesSentBefore_));
  }

  void Look() {
    view_.emplace(at_);
    if (!view_->slot()) throw Fault("nothing was pushed: {} cannot be read", at_.directory);
    blobs_ = view_->InFileOrder();
    damaged_.clear();
    progress_.emplace("pushing", blobs_.size(), view_->liveBytes());
  }

  // True if its snapshot is done.
  bool Round() {
    const double start = BootSeconds();
    const auto limit = static_cast<double>(remote_.config.pushSeconds);
    remote_.bucket.http().SetDeadline(start + limit);
    fresh_ = Index();
    builder_ = PackBuilder();
    const Tombs tombs = remote_.ReadTombs();  // before the indexes [R2]
    const Listing indexes = remote_.bucket.List("index/");
    const Listing packs = remote_.bucket.List("packs/");
    const auto isUsable = [&](const std::string& pack, uint64_t size) {
      return tombs.keys.count(PackKey(pack)) == 0 && remote_.FaultIn(packs, pack, size).empty();
    };
    std::vector<blobring::Hash> wanted;
    for (const ViewedBlob& blob : view_->blobs()) wanted.push_back(blob.hash);
    known_ = Believe(remote_.FindPlaces(indexes, tombs.keys, state_, wanted, isUsable),
                     start + limit / 2);
    const Index present = known_;
    PlacesOf placesOf(present);
    const std::set<blobring::Hash> pending = TakeUpPending(isUsable, present);

    Snapshot snapshot;
    snapshot.time = fmt::format("{:%FT%TZ}", fmt::gmtime(std::time(nullptr)));
    snapshot.host = HostName();
    snapshot.message = message_;
    snapshot.isPartial = view_->damaged();
    doneCount_ = doneBytes_ = 0;
    bytesSentBefore_ = remote_.bucket.http().bytesSent();
    std::vector<const ViewedBlob*> lacking;
    for (const ViewedBlob* blob : blobs_) {
      if (damaged_.count(blob->hash) != 0) continue;
      if (placesOf(blob->hash).empty() && pending.count(blob->hash) == 0) {
        lacking.push_back(blob);
        continue;
      }
      ++doneCount_;
      doneBytes_ += blob->size;
      Note(*blob, snapshot);
    }
    std::span<const ViewedBlob* const> rest = lacking;
    if (std::exchange(mayUpload_, true))
      while (!rest.empty() && BootSeconds() - start <= limit / 2) Upload(rest, snapshot);
    Send();
    remote_.bucket.http().Finish();
    if (!fresh_.packs.empty()) Publish();
    remote_.bucket.http().Finish();

    snapshot.isPartial = snapshot.isPartial || !rest.empty() || !damaged_.empty();
    std::sort(snapshot.hashes.begin(), snapshot.hashes.end());
    const std::string bytes = snapshot.Encode();
    snapshot_ = {state_.StoreId(), NextNumber(), DigestOf(bytes), bytes.size()};
    isPartial_ = snapshot.isPartial;
    remote_.bucket.Put(snapshot_.Key(), bytes);
    if (BootSeconds() - start > limit) {
      Inform("the snapshot was acknowledged too late to count; looking again");
      return false;
    }
    return rest.empty();
  }

  // A place is believed when this store has uploaded it, or has read it once, blob and all [R10].
  Index Believe(Index found, double until) {
    const Index known = state_.Known();
    PlacesOf knownOf(known);
    std::vector<Place> unread;
    std::vector<Place> believed;
    for (auto at = found.places.begin(); at != found.places.end();) {
      const auto end = std::find_if(at, found.places.end(),
                                    [&at](const Place& place) { return place.hash != at->hash; });
      const auto same = knownOf(at->hash);
      const auto own = std::find_if(at, end, [&](const Place& place) {
        return std::any_of(same.begin(), same.end(), [&](const Place& other) {
          return other.offset == place.offset && other.size == place.size &&
                 known.packs[other.pack] == found.packs[place.pack];
        });
      });
      (own != end ? believed : unread).push_back(own != end ? *own : *at);
      at = end;
    }
    found.places = std::move(believed);
    if (!unread.empty())
      Inform("comparing {} that others have pushed", Count(unread.size(), "blob"));
    std::ranges::sort(unread, {}, &Place::InPacks);
    for (auto at = unread.begin(); at != unread.end() && BootSeconds() < until;) {
      std::vector<Place> batch;
      for (uint64_t bytes = 0; at != unread.end() && bytes < kMaxCompared; bytes += at++->size)
        batch.push_back(*at);
      std::set<std::string> bad;
      Fetch(
          remote_, found, std::move(batch),
          [&found](const FetchedBlob& blob) { found.places.push_back(blob.place); }, bad);
      for (const std::string& pack : bad)
        remote_.Reject(PackKey(pack) + " does not hold what an index says");
      state_.KeepKnown(found);
    }
    found.Sort();
    return found;
  }

  // What is kept beside a store can be lost; what is listed says which number was the last.
  uint64_t NextNumber() {
    uint64_t last = 0;
    for (const auto& [key, name] :
         remote_.NamesOf(remote_.bucket.List("snapshots/" + state_.StoreId() + "/")))
      last = std::max(last, name.number);
    return std::min(last + 1, SnapshotName::kMaxNumber);
  }

  // Packs that an earlier push uploaded without coming to index them. Returns their blobs.
  std::set<blobring::Hash> TakeUpPending(
      const std::function<bool(const std::string&, uint64_t)>& isUsable, const Index& present) {
    std::set<blobring::Hash> blobs;
    std::vector<std::string> useless;
    for (const auto& [pack, index] : state_.Pending()) {
      const bool isIndexed =
          std::find(present.packs.begin(), present.packs.end(), pack) != present.packs.end();
      if (isIndexed || !isUsable(pack, index.PackSizes()[0])) {
        useless.push_back(pack);
        continue;
      }
      fresh_.Add(index);
      for (const Place& place : index.places) blobs.insert(place.hash);
    }
    state_.DropPending(useless);
    return blobs;
  }

  static void Note(const ViewedBlob& blob, Snapshot& snapshot) {
    snapshot.hashes.push_back(blob.hash);
    snapshot.bytes += blob.size;
  }

  // The first of `rest`, as many as are read at a time; without those that cannot be read.
  void Upload(std::span<const ViewedBlob* const>& rest, Snapshot& snapshot) {
    for (const ReadBlob& read : view_->ReadSome(rest, buffer_, kReadAtOnce)) {
      const ViewedBlob& blob = *read.blob;
      if (read.fault) {
        Say("{}", read.fault->what());
        damaged_.insert(blob.hash);
        continue;
      }
      if (builder_.IsFullFor(blob.size)) Send();
      builder_.Add(blob.hash, blob.transactionId, read.bytes);
      if (IsFull(fresh_)) Publish();
      Note(blob, snapshot);
    }
    ShowProgress();
  }

  void Send() {
    for (BuiltPack& built : builder_.Finish()) {
      const auto pack = std::make_shared<BuiltPack>(std::move(built));
      remote_.bucket.Put(PackKey(pack->name), pack->file, pack->digest, [this, pack](Reply&) {
        state_.KeepPending(pack->name, pack->index);
        fresh_.Add(pack->index);
        ++packCount_;
        blobCount_ += pack->index.places.size();
        doneCount_ += pack->index.places.size();
        blobBytes_ += pack->blobBytes;
      });
    }
  }

  // Uploads an index of the packs that were acknowledged.
  void Publish() {
    fresh_.Sort();
    known_.Add(fresh_);
    state_.KeepKnown(known_);
    const std::string bytes = fresh_.Encode();
    const std::vector<std::string> packs = std::exchange(fresh_, Index()).packs;
    const blobring::Hash digest = DigestOf(bytes);
    const std::string name = digest.text() + "-" + Nonce();
    state_.KeepCopy(kIndexCopies, digest, bytes);
    const auto file = std::make_shared<Spool>(bytes.size());
    file->Append(bytes);
    remote_.bucket.Put(IndexKey(name), file, digest,
                       [this, packs](Reply&) { state_.DropPending(packs); });
  }

  StoreOptions at_;
  std::optional<StoreView> view_;
  Remote& remote_;
  LocalState& state_;
  std::string message_;
  std::vector<const ViewedBlob*> blobs_;
  std::set<blobring::Hash> damaged_;
  Buffer buffer_;
  PackBuilder builder_;
  Index fresh_;  // packs that no index names yet
  Index known_;  // places that are believed
  SnapshotName snapshot_;
  bool isPartial_ = false;
  bool mayUpload_ = true;   // packs in the next round: false after one that lapsed
  uint64_t packCount_ = 0;  // uploaded
  uint64_t blobCount_ = 0;
  uint64_t blobBytes_ = 0;
  uint64_t doneCount_ = 0;  // of this round
  uint64_t doneBytes_ = 0;  // that were there before it
  uint64_t bytesSentBefore_ = 0;
  std::optional<Progress> progress_;
};

}  // namespace

ExitStatus Push(const PushOptions& options) {
  if (options.message.size() > kMaxMessage)
    throw UsageError("the message is longer than {} bytes", kMaxMessage);
  Remote remote(options.remote);
  LocalState state(options.at.directory, options.remote.cache, remote.config.id);
  Pusher pusher(options.at, remote, state, options.message);
  state.StoreId();  // or fail before anything is uploaded
  try {
    pusher.Run();
  } catch (const Interrupted&) {
    throw Interrupted(
        "interrupted; no snapshot was made. {} uploaded, {}; the next push goes on from there",
        Count(pusher.packCount(), "pack"), HumanSize(pusher.blobBytes()));
  }
  const Http& http = remote.bucket.http();
  PrintObject({{"type", "push"},
               {"snapshot", pusher.snapshot().Short()},
               {"partial", pusher.isPartial()},
               {"blobs", pusher.blobCount()},
               {"bytes", pusher.blobBytes()},
               {"packs", pusher.packCount()},
               {"requests", http.requests()},
               {"bytes_sent", http.bytesSent()},
               {"bytes_received", http.bytesReceived()}});
  if (!consoleOptions.json) Print("{}\n", pusher.snapshot().Short());
  Inform("{} pushed, {}, in {}; the remote had the other {}", Count(pusher.blobCount(), "blob"),
         HumanSize(pusher.blobBytes()), Count(pusher.packCount(), "pack"),
         pusher.readableCount() - std::min(pusher.blobCount(), pusher.readableCount()));
  if (!pusher.isPartial()) return kSuccess;
  Say("the snapshot is partial: {} is damaged, {} could not be read", options.at.directory,
      Count(pusher.damagedCount(), "blob"));
  return kFault;
}

}  // namespace tool::remote
