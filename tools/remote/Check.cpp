// remote check: what is there against what is named.
#include <algorithm>
#include <charconv>
#include <random>

#include "tools/base/Console.h"
#include "tools/base/Json.h"
#include "tools/remote/Commands.h"
#include "tools/remote/Fetch.h"

namespace tool::remote {
namespace {

// "100" or "5%": the share of packs, as a percentage.
double ShareOf(const std::string& text) {
  const char* const end = text.data() + text.size();
  double share = 0;
  const std::string_view rest(std::from_chars(text.data(), end, share).ptr, end);
  if ((!rest.empty() && rest != "%") || !(share > 0 && share <= 100))
    throw UsageError("--read-data takes a percentage above 0, up to 100, not \"{}\"", text);
  return share;
}

class Checker {
 public:
  explicit Checker(Remote& remote) : remote_(remote) {}

  // Snapshots first: what a push adds later is then not missed in the indexes.
  void List() {
    Http& http = remote_.bucket.http();
    Progress progress("listing: requests", 0);
    http.SetTick([&] { progress.Show(http.requests(), http.bytesReceived()); });
    names_ = remote_.NamesOf(remote_.bucket.List("snapshots/"));
    tombs_ = remote_.ReadTombs();
    indexes_ = remote_.ReadIndexes(remote_.bucket.List("index/"));
    packs_ = remote_.bucket.List("packs/");
    for (const auto& [key, object] : packs_.objects)
      if (NameIn(key).empty()) Find("{} is not the name of a pack", key);
    http.SetTick({});
  }

  // ETags and sizes against names and indexes.
  void ComparePacks() {
    std::set<std::string> indexed;
    std::set<std::string> faults;
    for (const auto& [name, index] : indexes_) {
      const bool isTombed = tombs_.keys.count(IndexKey(name)) != 0;
      const std::vector<uint64_t> sizes = index.PackSizes();
      for (size_t i = 0; i < index.packs.size(); ++i) {
        const std::string key = PackKey(index.packs[i]);
        indexed.insert(key);
        const std::string fault = remote_.FaultIn(packs_, index.packs[i], sizes[i]);
        if (!fault.empty() && !isTombed && tombs_.keys.count(key) == 0)
          faults.insert(fmt::format("{} {}", key, fault));
      }
    }
    findings_.insert(findings_.end(), faults.begin(), faults.end());
    for (const auto& [key, object] : packs_.objects)
      if (indexed.count(key) == 0) ++orphanCount_;
  }

  // Every blob of a snapshot must be in a pack that is there.
  void CompareSnapshots() {
    const Index all = Merge(indexes_, [this](const std::string& pack, uint64_t size) {
      return remote_.FaultIn(packs_, pack, size).empty();
    });
    Progress progress("checking snapshots", names_.size());
    for (const auto& [key, name] : names_) {
      const std::optional<Snapshot> read = remote_.ReadSnapshot(name, nullptr);
      if (!read) continue;  // forgotten since it was listed
      const Snapshot& snapshot = *read;
      uint64_t missing = 0;
      std::string example;
      PlacesOf placesOf(all);
      for (const blobring::Hash& hash : snapshot.hashes) {
        if (!placesOf(hash).empty()) continue;
        if (missing++ == 0) example = hash.text();
      }
      if (missing != 0)
        Find("the snapshot {} lacks {} of {}, {} for one", name.Short(), Count(missing, "blob"),
             snapshot.count, example);
      ++snapshotCount_;
      blobCount_ += snapshot.count;
      progress.Advance(snapshot.bytes);
    }
  }

  void ReadPacks(double share) {
    std::vector<std::string> chosen;
    uint64_t bytes = 0;
    for (const auto& [key, object] : packs_.objects)
      if (!NameIn(key).empty()) chosen.push_back(key);
    std::shuffle(chosen.begin(), chosen.end(), std::mt19937(std::random_device{}()));
    if (!chosen.empty())
      chosen.resize(std::max<size_t>(
          1, static_cast<size_t>(static_cast<double>(chosen.size()) * share / 100)));
    for (const std::string& key : chosen) bytes += packs_.objects.at(key).size;
    const Index all = Merge(indexes_, [](const std::string&, uint64_t) { return true; });
    std::map<std::string, std::vector<Place>> places;
    for (const Place& place : all.places) places[all.packs[place.pack]].push_back(place);
    Progress progress("reading packs", chosen.size(), bytes);
    for (const std::string& key : chosen) {
      const auto file = std::make_shared<Spool>();
      const uint64_t size = packs_.objects.at(key).size;
      remote_.bucket.StartGet(key, size, std::nullopt, file, [&, key, file](Reply& reply) {
        if (reply.status == 200)
          ComparePack(key, *file, places[NameIn(key)]);
        else
          Find("{} is gone", key);
        progress.Advance(file->size());
      });
    }
    remote_.bucket.http().Finish();
    readCount_ = chosen.size();
  }

  ExitStatus Report() const {
    PrintObject({{"type", "remote_check"},
                 {"snapshots", snapshotCount_},
                 {"packs", packs_.objects.size()},
                 {"orphans", orphanCount_},
                 {"tombs", tombs_.named.size()},
                 {"packs_read", readCount_},
                 {"findings", findings_},
                 {"left_out", remote_.rejected}});
    for (const std::string& finding : findings_) Say("{}", finding);
    const size_t findingCount = findings_.size() + remote_.rejected.size();
    Inform("{} of {} in {}, {}; {}", Count(blobCount_, "blob"), Count(snapshotCount_, "snapshot"),
           Count(packs_.objects.size(), "pack"),
           orphanCount_ == 0 ? "all indexed" : fmt::format("{} not indexed", orphanCount_),
           findingCount == 0 ? "nothing is wrong" : Count(findingCount, "finding"));
    if (readCount_ == 0)
      Inform("this is what the service accepted{}; --read-data reads it",
             remote_.config.etagIsMd5 ? "" : ", by sizes alone");
    else
      Inform("{} read", Count(readCount_, "pack"));
    return findingCount == 0 ? kSuccess : kFault;
  }

 private:
  template <class... T>
  void Find(fmt::format_string<T...> text, T&&... values) {
    findings_.push_back(fmt::format(text, std::forward<T>(values)...));
  }

  // What a pack has, and the places that indexes name in it.
  void ComparePack(const std::string& key, const Spool& spool, const std::vector<Place>& places) {
    const PackContents pack = ReadPack(key, spool);
    findings_.insert(findings_.end(), pack.findings.begin(), pack.findings.end());
    PlacesOf placesOf(pack.index);
    for (const Place& place : places) {
      const auto found = placesOf(place.hash);
      if (std::any_of(found.begin(), found.end(),
                      [&place](const Place& other) { return other.offset == place.offset; }))
        continue;
      Find("{} lacks the blob {} at {}", key, place.hash.text(), place.offset);
      return;
    }
  }

  Remote& remote_;
  std::map<std::string, SnapshotName> names_;
  Tombs tombs_;
  Remote::Indexes indexes_;
  Listing packs_;
  std::vector<std::string> findings_;
  uint64_t orphanCount_ = 0;
  uint64_t snapshotCount_ = 0;
  uint64_t blobCount_ = 0;
  uint64_t readCount_ = 0;
};

}  // namespace

ExitStatus CheckRemote(const CheckOptions& options) {
  const double share = options.readData.empty() ? 0 : ShareOf(options.readData);
  Remote remote(options.remote);
  Checker checker(remote);
  checker.List();
  checker.ComparePacks();
  checker.CompareSnapshots();
  if (share > 0) checker.ReadPacks(share);
  return checker.Report();
}

}  // namespace tool::remote
