#include "bench/Workloads.h"

#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>

#include "bench/Descriptor.h"
#include "bench/Require.h"

namespace bench {

namespace {

using BlobsPtr = std::shared_ptr<const Blobs>;

constexpr std::size_t kKiB = 1024;

std::size_t Scaled(std::size_t count, const Extent& extent, std::size_t multipleOf = 1) {
  return std::max(count / extent.divisor / multipleOf, std::size_t{1}) * multipleOf;
}

int Rounds(int usual, const Extent& extent) {
  return extent.rounds > 0 ? extent.rounds : usual;
}

void PutAll(Store& store, const Blobs& blobs, std::size_t perTransaction, std::vector<Key>& keys) {
  keys.resize(blobs.Count());
  for (std::size_t first = 0; first < blobs.Count(); first += perTransaction) {
    const std::size_t count = std::min(perTransaction, blobs.Count() - first);
    store.Put(blobs.All().subspan(first, count), keys.data() + first);
  }
}

void DeleteAll(Store& store, std::span<const Key> keys, std::size_t perTransaction) {
  for (std::size_t first = 0; first < keys.size(); first += perTransaction)
    store.Delete(keys.subspan(first, std::min(perTransaction, keys.size() - first)));
}

void DigestAll(const Blobs& blobs) {
  for (std::size_t i = 0; i < blobs.Count(); ++i)
    Require(DigestOf(blobs.All()[i]) == blobs.Keys()[i], kLimit, "comparing a digest");
}

// Digests, and each transaction in one write and one flush.
void AppendBarely(std::span<const Blob> blobs, std::size_t perTransaction, bool digest,
                  const std::filesystem::path& path) {
  constexpr std::size_t kLargest = 64 * kKiB;
  const Descriptor file(path, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND);
  std::vector<unsigned char> gathered;
  for (std::size_t i = 0; i < blobs.size(); ++i) {
    if (digest) DigestOf(blobs[i]);
    gathered.insert(gathered.end(), blobs[i].begin(), blobs[i].end());
    const bool ends = (i + 1) % perTransaction == 0 || i + 1 == blobs.size();
    if (gathered.size() >= kLargest || ends) {
      file.Append(gathered);
      gathered.clear();
    }
    if (ends) file.Flush();
  }
}

std::filesystem::path LimitFile() {
  return std::filesystem::temp_directory_path() / "blobring-limit.bin";
}

bool IsPeer(const std::string& name) {
  return name != kBlobring;
}

bool HasOwnCheck(const std::string& name) {
  return name == kBlobring || name == kSqlite || name == kRocksDb || name == kLevelDb;
}

Step PutStep(std::string id, std::string title, BlobsPtr blobs, std::size_t perTransaction) {
  const auto keys = std::make_shared<std::vector<Key>>();
  return {.id = std::move(id),
          .title = std::move(title),
          .run = [=](Store& store) { PutAll(store, *blobs, perTransaction, *keys); },
          .verify =
              [=](Store&) {
                Require(std::equal(keys->begin(), keys->end(), blobs->Keys().begin()), "put", "computing the keys");
              },
          .limit = [=] { AppendBarely(blobs->All(), perTransaction, true, LimitFile()); },
          .storedBytes = static_cast<double>(blobs->TotalSize())};
}

Step FetchStep(std::string id, std::string title, BlobsPtr blobs, std::size_t count) {
  const auto picks = std::make_shared<std::vector<std::size_t>>(RandomPicks(count, blobs->Count(), 11));
  return {.id = std::move(id),
          .title = std::move(title),
          .run =
              [=](Store& store) {
                std::string out;
                for (const std::size_t i : *picks) store.GetVerified(blobs->Keys()[i], out);
              },
          .limit =
              [=] {
                for (const std::size_t i : *picks)
                  Require(DigestOf(blobs->All()[i]) == blobs->Keys()[i], kLimit, "comparing a digest");
              }};
}

Step UnverifiedFetchStep(std::string id, std::string title, BlobsPtr blobs, std::size_t count) {
  const auto picks = std::make_shared<std::vector<std::size_t>>(RandomPicks(count, blobs->Count(), 12));
  return {.id = std::move(id),
          .title = std::move(title),
          .run =
              [=](Store& store) {
                std::string out;
                for (const std::size_t i : *picks) store.Get(blobs->Keys()[i], out);
                Require(out.size() == blobs->Size(), "fetch", "getting a blob of the right size");
              },
          .takesPart = IsPeer,
          .limit =
              [=] {
                std::string out;
                for (const std::size_t i : *picks) {
                  const Blob blob = blobs->All()[i];
                  out.assign(reinterpret_cast<const char*>(blob.data()), blob.size());
                }
              }};
}

Step OpenStep(std::string id, std::string title, BlobsPtr blobs) {
  return {.id = std::move(id),
          .title = std::move(title),
          .run =
              [=](Store& store) {
                store.Open();
                if (!store.VerifiesAtOpen()) store.CheckDigests();
              },
          .prepare = [](Store& store) { store.Close(); },
          .limit = [=] { DigestAll(*blobs); }};
}

Step OpenOwnWayStep(std::string id, std::string title) {
  return {.id = std::move(id),
          .title = std::move(title),
          .run =
              [](Store& store) {
                store.Open();
                if (!store.VerifiesAtOpen()) Require(store.CheckOwnWay(), "open", "the store's own check");
              },
          .prepare = [](Store& store) { store.Close(); },
          .takesPart = HasOwnCheck};
}

Step CheckStep(std::string id, std::string title, BlobsPtr blobs) {
  return {.id = std::move(id),
          .title = std::move(title),
          .run = [](Store& store) { store.CheckDigests(); },
          .limit = [=] { DigestAll(*blobs); }};
}

Step SizesStep(std::string id, std::string title, BlobsPtr blobs, std::size_t count) {
  std::vector<Key> keys = AbsentKeys(count / 2, 21);
  for (const std::size_t i : RandomPicks(count / 2, blobs->Count(), 22)) keys.push_back(blobs->Keys()[i]);
  std::shuffle(keys.begin(), keys.end(), std::minstd_rand(23));
  const auto asked = std::make_shared<const std::vector<Key>>(std::move(keys));
  return {.id = std::move(id), .title = std::move(title), .run = [=](Store& store) {
            std::size_t present = 0;
            for (const Key& key : *asked) present += store.SizeOf(key) >= 0 ? 1 : 0;
            Require(present == count / 2, "sizes", "finding half of the keys");
          }};
}

std::size_t CountKeys(Store& store) {
  std::size_t count = 0;
  store.ForEachKey([&](const Key&, Blob) { ++count; });
  return count;
}

Step EnumerateStep(std::string id, std::string title, BlobsPtr blobs) {
  return {.id = std::move(id), .title = std::move(title), .run = [=](Store& store) {
            Require(CountKeys(store) == blobs->Count(), "enumerate", "finding every key");
          }};
}

Step CompactStep(std::string id, std::string title, BlobsPtr blobs, std::size_t perTransaction) {
  return {.id = std::move(id),
          .title = std::move(title),
          .run =
              [=](Store& store) {
                DeleteAll(store, blobs->Keys().first(blobs->Count() / 2), perTransaction);
                store.Compact();
              },
          .verify =
              [=](Store& store) {
                Require(CountKeys(store) == blobs->Count() - blobs->Count() / 2, "compact", "keeping the other half");
              },
          .limit = [=] { AppendBarely(blobs->All().subspan(blobs->Count() / 2), blobs->Count(), false, LimitFile()); }};
}

Scenario SmallBlobs(const Extent& extent) {
  constexpr std::size_t kPerTransaction = 1000;
  const auto blobs = std::make_shared<Blobs>(Scaled(100000, extent, kPerTransaction), kKiB, 1);
  const std::size_t reads = Scaled(200000, extent, 2);
  const std::string count = std::to_string(blobs->Count());
  return {"small",
          count + " blobs of 1 KiB",
          Rounds(3, extent),
          {kBlobring, kLmdb, kSqlite, kRocksDb, kLevelDb, kHashFile},
          {PutStep("small.put", count + " x 1 KiB, 1,000 a commit", blobs, kPerTransaction),
           OpenStep("small.open", "open, every blob verified by digest, 1 KiB", blobs),
           OpenOwnWayStep("small.open-own", "open, peers by checks of their own (no digests), 1 KiB"),
           FetchStep("small.fetch", std::to_string(reads) + " random verified fetches of 1 KiB", blobs, reads),
           UnverifiedFetchStep("small.fetch-unverified", "the same, unverified", blobs, reads),
           SizesStep("small.sizes", std::to_string(reads) + " sizes, half absent", blobs, reads),
           EnumerateStep("small.enumerate", "enumerate " + count, blobs),
           CompactStep("small.compact", "delete half, compact", blobs, kPerTransaction)}};
}

// Small blobs as files: by themselves and fewer, since file systems take long
// to create and to remove so many.
Scenario SmallFiles(const Extent& extent) {
  constexpr std::size_t kPerTransaction = 1000;
  const auto blobs = std::make_shared<Blobs>(Scaled(5000, extent, kPerTransaction), kKiB, 7);
  const std::size_t reads = Scaled(100000, extent, 2);
  const std::string among = " among " + std::to_string(blobs->Count()) + ", beside files";
  return {"files",
          std::to_string(blobs->Count()) + " blobs of 1 KiB beside files",
          1,
          {kBlobring, kFileBatches},
          {PutStep("files.put", std::to_string(blobs->Count()) + " x 1 KiB, 1,000 a commit, beside files", blobs,
                   kPerTransaction),
           FetchStep("files.fetch", std::to_string(reads) + " random verified fetches of 1 KiB" + among, blobs, reads),
           SizesStep("files.sizes", std::to_string(reads) + " sizes, half absent" + among, blobs, reads),
           CompactStep("files.compact", "delete half, compact" + among, blobs, kPerTransaction)}};
}

Scenario LargeBlobs(const Extent& extent) {
  const auto blobs = std::make_shared<Blobs>(Scaled(1500, extent), 256 * kKiB, 2);
  const std::size_t reads = Scaled(3000, extent);
  return {"large",
          std::to_string(blobs->Count()) + " blobs of 256 KiB",
          Rounds(3, extent),
          {kBlobring, kLmdb, kSqlite, kRocksDb, kLevelDb, kFiles, kFileBatches},
          {PutStep("large.put", std::to_string(blobs->Count()) + " x 256 KiB, 50 a commit", blobs, 50),
           FetchStep("large.fetch", std::to_string(reads) + " random verified fetches of 256 KiB", blobs, reads),
           UnverifiedFetchStep("large.fetch-unverified", "the same, unverified", blobs, reads)}};
}

Scenario MediumBlobs(const Extent& extent) {
  const auto blobs = std::make_shared<Blobs>(Scaled(1500, extent), 64 * kKiB, 3);
  return {"medium",
          std::to_string(blobs->Count()) + " blobs of 64 KiB",
          Rounds(5, extent),
          {kBlobring, kLmdb, kSqlite, kRocksDb, kLevelDb, kFileBatches},
          {PutStep("medium.put", std::to_string(blobs->Count()) + " x 64 KiB, 100 a commit", blobs, 100),
           OpenStep("medium.open", "open, every blob verified by digest, 64 KiB", blobs),
           CheckStep("medium.check", "check of every blob, 64 KiB", blobs)}};
}

Scenario TinyBlobs(const Extent& extent) {
  const auto blobs = std::make_shared<Blobs>(Scaled(100000, extent), 64, 4);
  const std::string count = std::to_string(blobs->Count());
  return {"tiny",
          count + " blobs of 64 bytes",
          Rounds(5, extent),
          {kBlobring, kLmdb, kSqlite, kRocksDb, kLevelDb, kHashFile},
          {PutStep("tiny.put", count + " x 64 B in one transaction", blobs, blobs->Count())}};
}

// The second time, the store's files have all their blocks already.
Scenario SingleCommits(const Extent& extent) {
  const auto blobs = std::make_shared<Blobs>(Scaled(2000, extent), 4 * kKiB, 5);
  const std::string count = std::to_string(blobs->Count());
  Step growing = PutStep("commits.growing", count + " commits of one 4 KiB blob, growing files", blobs, 1);
  Step reused = PutStep("commits.reused", "the same after a compaction, files reused", blobs, 1);
  reused.prepare = [=](Store& store) {
    store.Delete(blobs->Keys());
    store.Compact();
    store.Compact();  // with two slots, back to the files of the first
  };
  reused.limit = nullptr;
  return {"commits",
          count + " single commits",
          Rounds(3, extent),
          {kBlobring, kLmdb, kSqlite, kRocksDb, kLevelDb, kFiles},
          {std::move(growing), std::move(reused)}};
}

}  // namespace

const std::vector<NamedScenario>& AllScenarios() {
  static const std::vector<NamedScenario> all = {
      {"large", LargeBlobs},      {"medium", MediumBlobs}, {"tiny", TinyBlobs},
      {"commits", SingleCommits}, {"small", SmallBlobs},   {"files", SmallFiles}};  // deletes files, so it comes last
  return all;
}

}  // namespace bench
