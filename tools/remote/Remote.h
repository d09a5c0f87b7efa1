// A remote as the commands see it: its promises, and what it lists.
//
// The rules that safety rests on; tests/remote/model tries all of their interleavings.
//
//   R1  A name is used once: a nonce in it. Nothing is overwritten, and what arrives late only
//       repeats what was sent or leaves an orphan.
//   R2  A push lists tombs before indexes, and takes what a tomb names for absent.
//   R3  A push is done only if its snapshot was acknowledged within T of the first listing, and
//       begins no write later than that.
//   R4  A prune names garbage in a tomb, and deletes only what a tomb older than W names,
//       W > T, after it has listed the snapshots again. So every push that is done and that relied
//       on it is seen.
//   R5  What a tomb names is never taken into use again: what a snapshot needs of it is copied into
//       a new pack first. So it does no harm to delete it twice, or late.
//   R6  A pack is deleted only when a tomb names every index that names it; the tomb goes last.
//   R7  Ages are Last-Modified against the Date of the same service.
//   R8  A copy of a blob counts only in a pack that is listed with the size and the ETag that its
//       index and its name give it. While a blob that a snapshot needs has no such copy, a prune
//       forgets, marks and deletes nothing.
//   R9  Before a prune marks a copy of a blob that is needed, it reads the one that stays.
//   R10 A push relies on a copy that another store has uploaded only after it has read it once.
#pragma once

#include <algorithm>
#include <functional>
#include <iterator>
#include <span>

#include "tools/remote/Bucket.h"
#include "tools/remote/LocalState.h"

namespace tool::remote {

struct Tombs {
  std::map<std::string, std::vector<std::string>> named;  // by the tomb's key
  std::set<std::string> keys;                             // all that any names
  Listing listing;
};

class Remote {
 public:
  // Reads blobring.json. Throws Fault when there is none.
  explicit Remote(const RemoteOptions& options);

  Bucket bucket;
  RemoteConfig config;

  Tombs ReadTombs();

  // What has not the name or the bytes of one of our objects is taken for absent, and said once.
  void Reject(const std::string& what);
  std::vector<std::string> rejected;
  // One of them may be whole, and the path to it at fault.
  bool mayBeWhole = false;

  // Why a pack cannot be relied on, whose size follows from an index: "is missing" [R8]. Nothing
  // for one that can.
  std::string FaultIn(const Listing& packs, const std::string& pack, uint64_t size) const;

  // Whether a pack is to be used, whose size an index gives.
  using UsePack = std::function<bool(const std::string& pack, uint64_t size)>;
  using Indexes = std::map<std::string, Index>;  // by name

  // The indexes of a listing. What cannot be read is rejected, here and below.
  Indexes ReadIndexes(const Listing& listing);
  // Where blobs lie, by the indexes of a listing, except those that `skip` names by their keys.
  // `wanted` is ascending. One index at a time is in memory; copies are kept in `state`.
  Index FindPlaces(const Listing& listing, const std::set<std::string>& skip,
                   const LocalState& state, const std::vector<blobring::Hash>& wanted,
                   const UsePack& use);

  std::map<std::string, SnapshotName> NamesOf(const Listing& snapshots);  // by key
  // By Last-Modified; numbers and names decide within one moment of it.
  std::vector<SnapshotName> NewestFirst(const Listing& snapshots);
  // Nothing if it is gone.
  std::optional<Snapshot> ReadSnapshot(const SnapshotName& name, const LocalState* state);
  void ReadSnapshots(const std::vector<SnapshotName>& names,
                     const std::function<void(const std::string& key, const Snapshot&)>& take,
                     const LocalState* state = nullptr);
  // The header lines alone, by key.
  std::map<std::string, Snapshot> ReadHeaders(const std::map<std::string, SnapshotName>& names);

 private:
  struct Expected {
    blobring::Hash digest;
    uint64_t size = 0;
  };
  void ReadIndexesInto(const Listing& listing, const std::set<std::string>& skip,
                       const std::function<void(const std::string& name, Index& index)>& take,
                       const LocalState* state);
  // Bucket, by key, that are compared with their digests. `take` is called for each that is there,
  // and rejects it by throwing Fault. With a `state`, copies of that kind are used and kept.
  void ReadAll(const std::map<std::string, Expected>& wanted,
               const std::function<void(const std::string& key, const std::string& bytes)>& take,
               const LocalState* state, const std::string& kind);
  // Whether the service itself has these bytes of an object.
  bool IsStored(const Reply& reply) const {
    return config.etagIsMd5 && reply.etag == DigestOf(reply.body).text();
  }
};

// Sorted sequences as one, each element once. Those of like length are merged first: an element is
// moved log n times.
template <class T>
class Union {
 public:
  void Add(std::vector<T> part) {
    parts_.push_back(std::move(part));
    while (parts_.size() > 1 && parts_.end()[-2].size() <= 2 * parts_.back().size()) Join();
  }
  std::vector<T> Take() {
    while (parts_.size() > 1) Join();
    return parts_.empty() ? std::vector<T>() : std::exchange(parts_, {}).front();
  }

 private:
  void Join() {
    std::vector<T> all;
    std::vector<T>& a = parts_.end()[-2];
    all.reserve(a.size() + parts_.back().size());
    std::set_union(a.begin(), a.end(), parts_.back().begin(), parts_.back().end(),
                   std::back_inserter(all));
    a = std::move(all);
    parts_.pop_back();
  }
  std::vector<std::vector<T>> parts_;
};

// All indexes as one, sorted, each pack and place once: of the packs that `use` accepts.
Index Merge(const Remote::Indexes& indexes, const Remote::UsePack& use);

// The places of one blob after another in a sorted index: quick where their hashes ascend.
class PlacesOf {
 public:
  explicit PlacesOf(const Index& index) : places_(index.places) {}
  std::span<const Place> operator()(const blobring::Hash& hash);

 private:
  const std::vector<Place>& places_;
  size_t at_ = 0;
};

// "24h", "90s", "30m", "7d" in seconds. Throws UsageError.
int64_t DurationOf(const std::string& text);

}  // namespace tool::remote
