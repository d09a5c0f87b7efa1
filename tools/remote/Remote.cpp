#include "tools/remote/Remote.h"

#include <algorithm>
#include <charconv>
#include <span>
#include <tuple>

#include "tools/base/Console.h"
#include "tools/base/Error.h"

namespace tool::remote {
namespace {

constexpr int kMostReads = 3;  // of an object that does not match its digest
constexpr uint64_t kHeaderBytes = 16384;
constexpr uint64_t kMaxUnderWay = uint64_t{16} << 20;  // bytes of answers that are held in memory

// See Merge.
class Merger {
 public:
  // With `wanted`, which ascends, places of those alone.
  explicit Merger(const Remote::UsePack& use, const std::vector<blobring::Hash>* wanted = nullptr)
      : use_(use), wanted_(wanted) {}

  void Add(const Index& index) {
    std::vector<std::optional<uint32_t>> renumbered;
    const std::vector<uint64_t> sizes = index.PackSizes();
    for (const std::string& pack : index.packs) {
      const uint64_t size = sizes[renumbered.size()];
      if (!use_(pack, size)) {
        renumbered.emplace_back();
        continue;
      }
      const auto number = static_cast<uint32_t>(all_.packs.size());
      const auto [at, isNew] = numbers_.emplace(pack, number);
      if (isNew) all_.packs.push_back(pack);
      if (isNew) all_.sizes.push_back(size);
      all_.sizes[at->second] = std::max(all_.sizes[at->second], size);
      renumbered.emplace_back(at->second);
    }
    std::vector<Place> places;
    size_t next = 0;
    for (Place place : index.places) {
      if (wanted_ != nullptr) {
        while (next < wanted_->size() && (*wanted_)[next] < place.hash) ++next;
        if (next == wanted_->size()) break;
        if ((*wanted_)[next] != place.hash) continue;
      }
      if (!renumbered[place.pack]) continue;
      place.pack = *renumbered[place.pack];
      places.push_back(place);
    }
    if (!std::is_sorted(places.begin(), places.end())) std::sort(places.begin(), places.end());
    places_.Add(std::move(places));
  }

  Index Finish() {
    all_.places = places_.Take();
    return std::move(all_);
  }

 private:
  const Remote::UsePack& use_;
  const std::vector<blobring::Hash>* wanted_;
  Index all_;
  std::map<std::string, uint32_t> numbers_;  // of packs
  Union<Place> places_;
};

}  // namespace

Remote::Remote(const RemoteOptions& options) : bucket(ConnectionOf(options)) {
  const std::optional<Reply> reply = bucket.Get("blobring.json");
  if (!reply)
    throw Fault("{} is not a remote: it has no blobring.json; `blobring remote init {}` makes one",
                options.url, options.url);
  config = RemoteConfig::Decode(reply->body);
  if (config.etagIsMd5 && reply->etag != DigestOf(reply->body).text())
    throw Fault("blobring.json arrived damaged");
}

void Remote::Reject(const std::string& what) {
  if (std::find(rejected.begin(), rejected.end(), what) != rejected.end()) return;
  rejected.push_back(what);
  Say("{}; it is left out", what);
}

Tombs Remote::ReadTombs() {
  Tombs tombs;
  tombs.listing = bucket.List("gc/");
  for (const auto& [key, object] : tombs.listing.objects) {
    if (object.size > kMaxAnswer) Reject(key + " is too large for a tomb");
    for (int attempt = 1; object.size <= kMaxAnswer; ++attempt) {
      const std::optional<Reply> reply = bucket.Get(key);
      if (!reply) break;  // all that it named has been deleted since
      try {
        const std::vector<std::string> keys = DecodeTomb(reply->body, key);
        tombs.named[key] = keys;
        tombs.keys.insert(keys.begin(), keys.end());
        break;
      } catch (const Fault& fault) {
        if (attempt < kMostReads && !IsStored(*reply)) continue;
        // One that is whole must not be overlooked: what it names is about to go.
        if (config.etagIsMd5 && !IsStored(*reply)) throw;
        Reject(fault.what());
        break;
      }
    }
  }
  return tombs;
}

std::string Remote::FaultIn(const Listing& packs, const std::string& pack, uint64_t size) const {
  const auto at = packs.objects.find(PackKey(pack));
  if (at == packs.objects.end()) return "is missing";
  if (at->second.size != size)
    return fmt::format("has {} bytes instead of {}", at->second.size, size);
  if (config.etagIsMd5 && at->second.etag != DigestIn(pack).text())
    return "has the digest " + Printable(at->second.etag);
  return "";
}

void Remote::ReadAll(const std::map<std::string, Expected>& wanted,
                     const std::function<void(const std::string&, const std::string&)>& take,
                     const LocalState* state, const std::string& kind) {
  const auto tryTake = [this, &take](const std::string& key, const std::string& bytes) {
    try {
      take(key, bytes);
    } catch (const Fault& fault) {
      Reject(fault.what());
    }
  };
  std::map<std::string, Expected> left;
  for (const auto& [key, expected] : wanted) {
    const auto copy = state != nullptr ? state->ReadCopy(kind, expected.digest) : std::nullopt;
    if (copy)
      tryTake(key, *copy);
    else
      left[key] = expected;
  }
  for (int attempt = 1; !left.empty(); ++attempt) {
    std::map<std::string, Expected> damaged;
    uint64_t underWay = 0;  // bytes
    for (const auto& [key, expected] : left) {
      if ((underWay += expected.size) > kMaxUnderWay) bucket.http().Finish();
      if (underWay > kMaxUnderWay) underWay = expected.size;
      const auto done = [&, key = key, expected = expected](Reply& reply) {
        if (reply.status == 404) return;
        if (DigestOf(reply.body) == expected.digest) {
          if (state != nullptr) state->KeepCopy(kind, expected.digest, reply.body);
          tryTake(key, reply.body);
        } else if (attempt < kMostReads && !IsStored(reply)) {
          damaged[key] = expected;
        } else {
          mayBeWhole = mayBeWhole || !IsStored(reply);
          Reject(key + " does not match the digest in its name");
        }
      };
      bucket.StartGet(key, expected.size, std::nullopt, nullptr, done);
    }
    bucket.http().Finish();
    left = std::move(damaged);
  }
}

void Remote::ReadIndexesInto(const Listing& listing, const std::set<std::string>& skip,
                             const std::function<void(const std::string&, Index&)>& take,
                             const LocalState* state) {
  std::map<std::string, Expected> toRead;
  std::set<blobring::Hash> listed;
  for (const auto& [key, object] : listing.objects) {
    const std::string name = NameIn(key);
    if (name.empty()) {
      Reject(key + " is not the name of an index");
      continue;
    }
    listed.insert(DigestIn(name));
    if (skip.count(key) == 0) toRead[key] = {DigestIn(name), object.size};
  }
  const auto decode = [&take](const std::string& key, const std::string& bytes) {
    Index index = Index::Decode(bytes, key);
    take(NameIn(key), index);
  };
  ReadAll(toRead, decode, state, kIndexCopies);
  if (state != nullptr) state->DropCopiesBut(kIndexCopies, listed);
}

Remote::Indexes Remote::ReadIndexes(const Listing& listing) {
  Indexes indexes;
  ReadIndexesInto(
      listing, {},
      [&indexes](const std::string& name, Index& index) { indexes[name] = std::move(index); },
      nullptr);
  return indexes;
}

Index Remote::FindPlaces(const Listing& listing, const std::set<std::string>& skip,
                         const LocalState& state, const std::vector<blobring::Hash>& wanted,
                         const UsePack& use) {
  Merger merger(use, &wanted);
  ReadIndexesInto(
      listing, skip, [&merger](const std::string&, Index& index) { merger.Add(index); }, &state);
  return merger.Finish();
}

std::map<std::string, SnapshotName> Remote::NamesOf(const Listing& snapshots) {
  std::map<std::string, SnapshotName> names;
  for (const auto& [key, object] : snapshots.objects) {
    std::optional<SnapshotName> name = SnapshotName::Parse(key);
    if (!name || name->Key() != key) {
      Reject(key + " is not the name of a snapshot");
      continue;
    }
    name->size = object.size;
    names[key] = *name;
  }
  return names;
}

std::vector<SnapshotName> Remote::NewestFirst(const Listing& snapshots) {
  std::vector<SnapshotName> names;
  for (const auto& [key, name] : NamesOf(snapshots)) names.push_back(name);
  std::sort(names.begin(), names.end(), [&snapshots](const auto& a, const auto& b) {
    const auto order = [&snapshots](const SnapshotName& name) {
      const Object& object = snapshots.objects.at(name.Key());
      return std::tuple(object.modified, object.when, name.number, name.Short());
    };
    return order(a) > order(b);
  });
  return names;
}

void Remote::ReadSnapshots(const std::vector<SnapshotName>& names,
                           const std::function<void(const std::string&, const Snapshot&)>& take,
                           const LocalState* state) {
  const auto decode = [&take](const std::string& key, const std::string& bytes) {
    take(key, Snapshot::Decode(bytes, key));
  };
  std::map<std::string, Expected> wanted;
  for (const SnapshotName& name : names) wanted[name.Key()] = {name.digest, name.size};
  ReadAll(wanted, decode, state, kSnapshotCopies);
}

std::optional<Snapshot> Remote::ReadSnapshot(const SnapshotName& name, const LocalState* state) {
  std::optional<Snapshot> found;
  ReadSnapshots(
      {name}, [&found](const std::string&, const Snapshot& snapshot) { found = snapshot; }, state);
  if (state != nullptr) state->DropCopiesBut(kSnapshotCopies, {name.digest});
  return found;
}

std::map<std::string, Snapshot> Remote::ReadHeaders(
    const std::map<std::string, SnapshotName>& names) {
  std::map<std::string, Snapshot> headers;
  for (const auto& [key, name] : names)
    bucket.StartGet(
        key, name.size, ByteRange{0, kHeaderBytes}, nullptr, [&, key = key](Reply& reply) {
          if (reply.status == 404) return;
          try {
            headers[key] = Snapshot::Decode(reply.status == 416 ? "" : reply.body, key, true);
          } catch (const Fault& fault) {
            Reject(fault.what());
          }
        });
  bucket.http().Finish();
  return headers;
}

Index Merge(const Remote::Indexes& indexes, const Remote::UsePack& use) {
  Merger merger(use);
  for (const auto& [name, index] : indexes) merger.Add(index);
  return merger.Finish();
}

std::span<const Place> PlacesOf::operator()(const blobring::Hash& hash) {
  if (at_ != 0 && !(places_[at_ - 1].hash < hash)) at_ = 0;  // they did not ascend
  size_t step = 1;
  while (at_ + step < places_.size() && places_[at_ + step].hash < hash) {
    at_ += step;
    step *= 2;
  }
  const auto begin = std::lower_bound(
      places_.begin() + static_cast<ptrdiff_t>(at_),
      places_.begin() + static_cast<ptrdiff_t>(std::min(at_ + step + 1, places_.size())), hash,
      [](const Place& place, const blobring::Hash& wanted) { return place.hash < wanted; });
  auto end = begin;
  while (end != places_.end() && end->hash == hash) ++end;
  at_ = static_cast<size_t>(begin - places_.begin());
  return {begin, end};
}

int64_t DurationOf(const std::string& text) {
  const char* const end = text.data() + text.size();
  int64_t number = -1;
  const std::string_view rest(std::from_chars(text.data(), end, number).ptr, end);
  constexpr std::pair<std::string_view, int64_t> kUnits[] = {
      {"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}};
  for (const auto& [unit, seconds] : kUnits)
    if (number >= 0 && number < 1000000 && rest == unit) return number * seconds;
  throw UsageError("not a duration: \"{}\" (expected 90s, 30m, 24h, 7d or the like)", text);
}

}  // namespace tool::remote
