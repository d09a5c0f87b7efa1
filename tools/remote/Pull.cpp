// pull: the blobs of a snapshot that a store lacks.
#include <algorithm>
#include <atomic>

#include "tools/base/Console.h"
#include "tools/base/Json.h"
#include "tools/remote/Commands.h"
#include "tools/remote/Fetch.h"
#include "tools/work/BatchWriter.h"
#include "tools/work/Open.h"

namespace tool::remote {
namespace {

constexpr int kMostAttempts = 2;  // each with the indexes as they are then
constexpr size_t kMostNamed = 10;

struct Chosen {
  SnapshotName name;
  Snapshot snapshot;
};

// The newest whole one among those whose names begin with `wanted`; any kind if it is the only one.
// None of the store `except`.
std::optional<Chosen> Choose(Remote& remote, const LocalState& state, const std::string& wanted,
                             const std::string& except) {
  const Listing listing = remote.bucket.List("snapshots/");
  std::vector<SnapshotName> names = remote.NewestFirst(listing);
  std::erase_if(names, [&](const SnapshotName& name) {
    return !name.Short().starts_with(wanted) || name.store == except;
  });
  for (const SnapshotName& name : names) {
    std::optional<Snapshot> snapshot = remote.ReadSnapshot(name, &state);
    if (!snapshot || (snapshot->isPartial && (wanted.empty() || names.size() > 1))) continue;
    if (snapshot->isPartial) Say("the snapshot {} is partial", name.Short());
    return Chosen{name, std::move(*snapshot)};
  }
  return std::nullopt;
}

class Puller {
 public:
  Puller(Remote& remote, const LocalState& state, OpenStore& to, const Chosen& chosen)
      : remote_(remote),
        state_(state),
        to_(to),
        chosen_(chosen),
        writer_(to.store, unused_, BatchWriter::WhenFull::kRepack),
        progress_("pulling", chosen.snapshot.count, chosen.snapshot.bytes) {
    remote.bucket.http().SetTick([this] { progress_.Show(doneCount_, doneBytes_); });
  }
  ~Puller() { remote_.bucket.http().SetTick({}); }
  Puller(const Puller&) = delete;

  // Returns the number of blobs that could not be had.
  size_t Run() {
    std::vector<blobring::Hash> missing = Missing(chosen_.snapshot.hashes);
    doneCount_ = chosen_.snapshot.hashes.size() - missing.size();
    for (int attempt = 0; attempt < kMostAttempts && !missing.empty(); ++attempt) {
      const Listing indexes = remote_.bucket.List("index/");
      const Listing packs = remote_.bucket.List("packs/");
      index_ = remote_.FindPlaces(indexes, {}, state_, missing,
                                  [&](const std::string& pack, uint64_t size) {
                                    if (!remote_.FaultIn(packs, pack, size).empty())
                                      badPacks_.insert(pack);
                                    return true;  // a blob that is nowhere else may be whole there
                                  });
      Fetch(
          remote_, index_, Places(missing),
          [this](const FetchedBlob& blob) {
            writer_.Add(blob.data, blob.place.hash.text(), &blob.place.hash);
            ++doneCount_;
            doneBytes_ += blob.data.size();
          },
          badPacks_);
      writer_.Commit();
      missing = Missing(missing);
    }
    for (size_t i = 0; i < std::min(missing.size(), kMostNamed); ++i) Name(missing[i]);
    return missing.size();
  }

  void Commit() { writer_.Commit(); }
  uint64_t committedCount() const { return writer_.committedCount(); }
  uint64_t committedBytes() const { return writer_.committedBytes(); }

 private:
  std::vector<blobring::Hash> Missing(const std::vector<blobring::Hash>& hashes) const {
    std::vector<blobring::Hash> missing;
    for (const blobring::Hash& hash : hashes)
      if (!SizeOf(to_.store, hash)) missing.push_back(hash);
    return missing;
  }

  // Where to read each from: rather not from a pack that was found bad.
  std::vector<Place> Places(const std::vector<blobring::Hash>& hashes) const {
    std::vector<Place> places;
    PlacesOf placesOf(index_);
    for (const blobring::Hash& hash : hashes) {
      const auto found = placesOf(hash);
      if (found.empty()) continue;
      const auto good = std::find_if(found.begin(), found.end(), [this](const Place& place) {
        return badPacks_.count(index_.packs[place.pack]) == 0;
      });
      places.push_back(good != found.end() ? *good : found[0]);
    }
    return places;
  }

  void Name(const blobring::Hash& hash) const {
    const auto found = PlacesOf(index_)(hash);
    if (found.empty())
      Say("the snapshot {} names the blob {}, which no index has", chosen_.name.Short(),
          hash.text());
    else
      Say("the snapshot {} names the blob {}, whose pack {} is gone or damaged",
          chosen_.name.Short(), hash.text(), index_.packs[found[0].pack]);
  }

  Remote& remote_;
  const LocalState& state_;
  OpenStore& to_;
  const Chosen& chosen_;
  std::string unused_;
  BatchWriter writer_;
  Index index_;
  std::set<std::string> badPacks_;
  std::atomic<uint64_t> doneCount_ = 0;
  std::atomic<uint64_t> doneBytes_ = 0;
  Progress progress_;
};

}  // namespace

ExitStatus Pull(const PullOptions& options) {
  Remote remote(options.remote);
  LocalState state(options.at.directory, options.remote.cache, remote.config.id);
  const std::optional<Chosen> found =
      Choose(remote, state, options.snapshot, options.fromOthers ? state.StoreId() : "");
  if (!found && options.fromOthers) {
    Inform("no other store has a whole snapshot there");
    return kSuccess;
  }
  if (!found)
    throw NothingFound("there is no whole snapshot{}{}",
                       options.snapshot.empty() ? "" : " whose name begins with ",
                       options.snapshot);
  const Chosen& chosen = *found;
  size_t missingCount = 0;
  uint64_t count = 0;
  uint64_t bytes = 0;
  {
    OpenStore to(options.at, Access::kChange);
    Puller puller(remote, state, to, chosen);
    try {
      missingCount = puller.Run();
    } catch (const Interrupted&) {
      puller.Commit();
      throw Interrupted("interrupted: {} stored, {}; the next pull goes on from there",
                        Count(puller.committedCount(), "blob"), HumanSize(puller.committedBytes()));
    } catch (const Fault&) {
      puller.Commit();
      throw;
    }
    count = puller.committedCount();
    bytes = puller.committedBytes();
  }
  const Http& http = remote.bucket.http();
  PrintObject({{"type", "pull"},
               {"snapshot", chosen.name.Short()},
               {"blobs", count},
               {"bytes", bytes},
               {"missing", missingCount},
               {"requests", http.requests()},
               {"bytes_sent", http.bytesSent()},
               {"bytes_received", http.bytesReceived()}});
  Inform("{} pulled, {}, of the {} of the snapshot {}", Count(count, "blob"), HumanSize(bytes),
         chosen.snapshot.count, chosen.name.Short());
  if (missingCount == 0) return kSuccess;
  Say("{} of the snapshot could not be had", Count(missingCount, "blob"));
  return kFault;
}

}  // namespace tool::remote
