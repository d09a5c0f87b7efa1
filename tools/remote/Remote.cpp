#include "tools/remote/Remote.h"

#include <algorithm>
#include <span>
#include <tuple>

#include "tools/Console.h"
#include "tools/Error.h"

namespace tool::remote {
namespace {

constexpr int kMostReads = 3;  // of an object that does not match its digest
constexpr uint64_t kHeaderBytes = 16384;

}  // namespace

Remote::Remote(const RemoteOptions& options) : objects(ConnectionOf(options)) {
  const std::optional<Reply> reply = objects.Get("blobring.json");
  if (!reply)
    throw Fault("{} is no remote: it has no blobring.json; `blobring remote init {}` makes one",
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
  tombs.listing = objects.List("gc/");
  for (const auto& [key, object] : tombs.listing.objects) {
    if (object.size > kMaxAnswer) Reject(key + " is too large for a tomb");
    for (int attempt = 1; object.size <= kMaxAnswer; ++attempt) {
      const std::optional<Reply> reply = objects.Get(key);
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
    for (const auto& [key, expected] : left) {
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
      objects.StartGet(key, expected.size, std::nullopt, nullptr, done);
    }
    objects.http().Finish();
    left = std::move(damaged);
  }
}

Remote::Indexes Remote::ReadIndexes(const Listing& listing, const std::set<std::string>& skip,
                                    const LocalState* state) {
  std::map<std::string, Expected> toRead;
  std::set<blobring::Hash> listed;
  for (const auto& [key, object] : listing.objects) {
    const std::string name = NameIn(key);
    if (name.empty()) {
      Reject(key + " is no index's name");
      continue;
    }
    listed.insert(DigestIn(name));
    if (skip.count(key) == 0) toRead[key] = {DigestIn(name), object.size};
  }
  Indexes indexes;
  const auto take = [&indexes](const std::string& key, const std::string& bytes) {
    indexes[NameIn(key)] = Index::Decode(bytes, key);
  };
  ReadAll(toRead, take, state, kIndexCopies);
  if (state != nullptr) state->DropCopiesBut(kIndexCopies, listed);
  return indexes;
}

std::map<std::string, SnapshotName> Remote::NamesOf(const Listing& snapshots) {
  std::map<std::string, SnapshotName> names;
  for (const auto& [key, object] : snapshots.objects) {
    std::optional<SnapshotName> name = SnapshotName::Parse(key);
    if (!name || name->Key() != key) {
      Reject(key + " is no snapshot's name");
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
      return std::tuple(object.modified, object.when, name.sequence, name.Short());
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
    objects.StartGet(
        key, name.size, ByteRange{0, kHeaderBytes}, nullptr, [&, key = key](Reply& reply) {
          if (reply.status == 404) return;
          try {
            headers[key] = Snapshot::Decode(reply.status == 416 ? "" : reply.body, key, true);
          } catch (const Fault& fault) {
            Reject(fault.what());
          }
        });
  objects.http().Finish();
  return headers;
}

Index Merge(const Remote::Indexes& indexes,
            const std::function<bool(const std::string&, uint64_t)>& use) {
  Index all;
  std::map<std::string, uint32_t> numbers;
  for (const auto& [name, index] : indexes) {
    std::vector<std::optional<uint32_t>> renumbered;
    const std::vector<uint64_t> sizes = index.PackSizes();
    for (const std::string& pack : index.packs) {
      if (!use(pack, sizes[renumbered.size()])) {
        renumbered.emplace_back();
        continue;
      }
      const auto [at, isNew] = numbers.emplace(pack, static_cast<uint32_t>(all.packs.size()));
      if (isNew) all.packs.push_back(pack);
      renumbered.emplace_back(at->second);
    }
    for (Place place : index.places) {
      if (!renumbered[place.pack]) continue;
      place.pack = *renumbered[place.pack];
      all.places.push_back(place);
    }
  }
  all.Sort();
  const auto key = [](const Place& place) {
    return std::tie(place.hash, place.pack, place.offset);
  };
  all.places.erase(std::unique(all.places.begin(), all.places.end(),
                               [&key](const Place& a, const Place& b) { return key(a) == key(b); }),
                   all.places.end());
  return all;
}

std::span<const Place> PlacesOf(const Index& index, const blobring::Hash& hash) {
  const auto begin = std::lower_bound(
      index.places.begin(), index.places.end(), hash,
      [](const Place& place, const blobring::Hash& wanted) { return place.hash < wanted; });
  auto end = begin;
  while (end != index.places.end() && end->hash == hash) ++end;
  return {begin, end};
}

int64_t DurationOf(const std::string& text) {
  size_t used = 0;
  long long number = 0;
  try {
    number = std::stoll(text, &used);
  } catch (const std::exception&) {
    used = 0;
  }
  constexpr std::pair<std::string_view, int64_t> kUnits[] = {
      {"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}};
  for (const auto& [unit, seconds] : kUnits)
    if (used != 0 && number >= 0 && number < 1000000 && text.substr(used) == unit)
      return number * seconds;
  throw UsageError("\"{}\" is no duration such as 90s, 30m, 24h or 7d", text);
}

}  // namespace tool::remote
