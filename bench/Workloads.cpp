#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <random>

#include "bench/Measure.h"

namespace bench {
namespace {

using BlobsPtr = std::shared_ptr<const Blobs>;

constexpr std::size_t kKiB = 1024;

std::size_t Scaled(std::size_t count, std::size_t divisor) {
  return std::max<std::size_t>(count / divisor, 1);
}

template <class Item, class Do>
void InTransactions(std::span<const Item> items, std::size_t perTransaction, Do make) {
  for (; !items.empty(); items = items.subspan(std::min(perTransaction, items.size())))
    make(items.first(std::min(perTransaction, items.size())));
}

void DeleteAll(Store& store, std::span<const Key> keys, std::size_t perTransaction) {
  InTransactions(keys, perTransaction, [&](std::span<const Key> some) { store.Delete(some); });
}

std::size_t CountOf(Store& store) {
  std::size_t count = 0;
  store.ForEach(false, [&](const Key&, Blob) { ++count; });
  return count;
}

void DigestAll(std::span<const Blob> blobs) {
  for (const Blob& blob : blobs) DigestOf(blob);
}

// What the format asks of every writer: one MD5 pass, the records appended, the header rewritten
// and one flush a commit. With reused, over the blocks that an earlier call has written.
void AppendBarely(std::span<const Blob> blobs, std::size_t perTransaction, bool reused,
                  const std::filesystem::path& directory) {
  constexpr std::size_t kHeaderSize = 24, kLargestWrite = 1024 * kKiB;
  const int fd = ::open((directory / "file").c_str(),
                        O_WRONLY | O_CREAT | O_CLOEXEC | (reused ? 0 : O_TRUNC), 0644);
  Require(fd >= 0, kLimit, "open");
  std::vector<unsigned char> gathered;
  std::size_t end = kHeaderSize;
  const auto write = [&](std::span<const unsigned char> bytes, std::size_t at) {
    Require(::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(at)) ==
                static_cast<ssize_t>(bytes.size()),
            kLimit, "pwrite");
  };
  const auto append = [&] {
    write(gathered, end);
    end += gathered.size();
    gathered.clear();
  };
  InTransactions(blobs, perTransaction, [&](std::span<const Blob> some) {
    for (const Blob& blob : some) {
      DigestOf(blob);
      gathered.insert(gathered.end(), blob.begin(), blob.end());
      if (gathered.size() >= kLargestWrite) append();
    }
    append();
    write(some.front().first(kHeaderSize), 0);
    Require(::fdatasync(fd) == 0, kLimit, "fdatasync");
  });
  ::close(fd);
}

Step PutStep(std::string id, std::string title, BlobsPtr blobs, std::size_t perTransaction,
             bool reused = false) {
  return {.id = std::move(id),
          .title = std::move(title),
          .run =
              [=](Store& store) {
                InTransactions(blobs->All(), perTransaction,
                               [&](std::span<const Blob> some) { store.Put(some); });
              },
          .limit =
              [=](const auto& directory) {
                AppendBarely(blobs->All(), perTransaction, reused, directory);
              },
          .putBytes = blobs->TotalSize()};
}

Step FetchStep(std::string id, std::string title, BlobsPtr blobs, std::size_t count, bool verified,
               std::size_t perCall = 1) {
  const auto keys = std::make_shared<const std::vector<Key>>(PickedKeys(*blobs, count, 11));
  return {
      .id = std::move(id),
      .title = std::move(title),
      .run =
          [=](Store& store) {
            const bool compare = verified && !store.Verifies();
            std::vector<std::string> out(perCall);
            InTransactions(std::span(*keys), perCall, [&](std::span<const Key> some) {
              if (perCall == 1)
                store.Get(some[0], out[0]);
              else
                store.GetMany(some, std::span(out).first(some.size()));
              for (std::size_t i = 0; compare && i < some.size(); ++i) {
                const auto* bytes = reinterpret_cast<const unsigned char*>(out[i].data());
                Require(DigestOf({bytes, out[i].size()}) == some[i], "fetch", "comparing a digest");
              }
            });
          },
      .limit =
          [=](const auto&) {
            std::vector<unsigned char> out;
            for (std::size_t i = 0; i < count; ++i) {
              const Blob blob = blobs->All()[i * 7919 % blobs->Count()];
              out.assign(blob.begin(), blob.end());
              if (verified) DigestOf(out);
            }
          }};
}

// The blobs before first have been deleted.
Step OpenStep(std::string id, std::string title, BlobsPtr blobs, std::size_t first = 0) {
  return {.id = std::move(id),
          .title = std::move(title),
          .run =
              [](Store& store) {
                store.Open();
                if (!store.Verifies()) store.CheckDigests();
              },
          .prepare =
              [=](Store& store) {
                Require(CountOf(store) == blobs->Count() - first, "open",
                        "finding every key before it");
                store.Close();
              },
          .limit = [=](const auto&) { DigestAll(blobs->All().subspan(first)); }};
}

Step SizesStep(std::string id, std::string title, BlobsPtr blobs, std::size_t count) {
  std::vector<Key> keys = AbsentKeys(count / 2, 21);
  const std::vector<Key> present = PickedKeys(*blobs, count / 2, 22);
  keys.insert(keys.end(), present.begin(), present.end());
  std::shuffle(keys.begin(), keys.end(), std::minstd_rand(23));
  const auto asked = std::make_shared<const std::vector<Key>>(std::move(keys));
  return {.id = std::move(id), .title = std::move(title), .run = [=](Store& store) {
            std::size_t found = 0;
            for (const Key& key : *asked) found += store.SizeOf(key) >= 0 ? 1 : 0;
            Require(found == count / 2, "sizes", "finding half of the keys");
          }};
}

Scenario SmallBlobs(std::size_t divisor) {
  constexpr std::size_t kPerTransaction = 1000;
  const auto blobs = std::make_shared<Blobs>(Scaled(100000, divisor), kKiB, 1);
  const std::size_t count = blobs->Count(), half = count / 2, reads = Scaled(200000, divisor);
  const Step compact = {.id = "small.compact",
                        .title = "delete half of them, compact",
                        .run =
                            [=](Store& store) {
                              DeleteAll(store, blobs->Keys().first(half), kPerTransaction);
                              store.Compact();
                            },
                        .limit =
                            [=](const auto& directory) {
                              AppendBarely(blobs->All().subspan(half), count, false, directory);
                            }};
  return {
      "small",
      3,
      {PutStep("small.put", fmt::format("{} x 1 KiB, 1,000 a commit", count), blobs,
               kPerTransaction),
       OpenStep("small.open", "open, every blob verified, 1 KiB", blobs),
       FetchStep("small.fetch", fmt::format("{} random verified fetches, 1 KiB", reads), blobs,
                 reads, true),
       FetchStep("small.fetch-many", "the same, 64 a call", blobs, reads, true, 64),
       FetchStep("small.fetch-unverified", "one a call; peers verify nothing", blobs, reads, false),
       SizesStep("small.sizes", fmt::format("{} sizes, half of them absent", reads), blobs, reads),
       {.id = "small.enumerate",
        .title = fmt::format("enumerate {} keys", count),
        .run =
            [=](Store& store) {
              Require(CountOf(store) == count, "enumerate", "finding every key");
            }},
       compact,
       OpenStep("small.reopen", "open after the compaction, every blob verified", blobs, half)}};
}

Scenario MediumBlobs(std::size_t divisor) {
  const auto blobs = std::make_shared<Blobs>(Scaled(1500, divisor), 64 * kKiB, 3);
  return {
      "medium",
      5,
      {PutStep("medium.put", fmt::format("{} x 64 KiB, 100 a commit", blobs->Count()), blobs, 100),
       OpenStep("medium.open", "open, every blob verified, 64 KiB", blobs),
       FetchStep("medium.fetch-many",
                 fmt::format("{} random verified fetches, 64 KiB, 64 a call", 4 * blobs->Count()),
                 blobs, 4 * blobs->Count(), true, 64),
       {.id = "medium.check",
        .title = "check every blob, 64 KiB",
        .run = [](Store& store) { store.CheckDigests(); },
        .limit = [=](const auto&) { DigestAll(blobs->All()); }}}};
}

Scenario LargeBlobs(std::size_t divisor) {
  const auto blobs = std::make_shared<Blobs>(Scaled(1500, divisor), 256 * kKiB, 2);
  const std::size_t reads = Scaled(3000, divisor);
  return {
      "large",
      3,
      {PutStep("large.put", fmt::format("{} x 256 KiB, 50 a commit", blobs->Count()), blobs, 50),
       FetchStep("large.fetch", fmt::format("{} random verified fetches, 256 KiB", reads), blobs,
                 reads, true)}};
}

Scenario HugeBlobs(std::size_t divisor) {
  const auto blobs = std::make_shared<Blobs>(4, Scaled(64 * kKiB * kKiB, divisor), 7);
  return {
      "huge",
      3,
      {{.id = "huge.put",
        .title = fmt::format("{} x {} MiB in pieces, one a commit", blobs->Count(),
                             blobs->All()[0].size() / (kKiB * kKiB)),
        .run =
            [=](Store& store) {
              for (const Blob& blob : blobs->All()) store.PutInPieces(blob);
            },
        .limit = [=](const auto& directory) { AppendBarely(blobs->All(), 1, false, directory); },
        .putBytes = blobs->TotalSize()},
       {.id = "huge.check",
        .title = "read and compare them in pieces",
        .run =
            [=](Store& store) {
              for (const Key& key : blobs->Keys()) store.CheckInPieces(key);
            },
        .limit = [=](const auto&) { DigestAll(blobs->All()); }}}};
}

Scenario TinyBlobs(std::size_t divisor) {
  const auto blobs = std::make_shared<Blobs>(Scaled(100000, divisor), 64, 4);
  return {"tiny",
          5,
          {PutStep("tiny.put", fmt::format("{} x 64 B in one commit", blobs->Count()), blobs,
                   blobs->Count())}};
}

// The second time, the files of the store have all their blocks already.
Scenario SingleCommits(std::size_t divisor) {
  const auto blobs = std::make_shared<Blobs>(Scaled(2000, divisor), 4 * kKiB, 5);
  Step growing =
      PutStep("commits.growing", fmt::format("{} commits of 4 KiB, growing files", blobs->Count()),
              blobs, 1);
  Step reused =
      PutStep("commits.reused", "the same, files reused after two compactions", blobs, 1, true);
  reused.prepare = [=](Store& store) {
    DeleteAll(store, blobs->Keys(), blobs->Count());
    store.Compact();
    store.Compact();  // of two slots, back to the first
  };
  return {"commits", 3, {std::move(growing), std::move(reused)}};
}

Scenario ManyBlobs(std::size_t divisor) {
  const auto blobs = std::make_shared<Blobs>(Scaled(1000000, divisor), 128, 6);
  const std::size_t reads = Scaled(200000, divisor);
  return {"many",
          1,
          {PutStep("many.put", fmt::format("{} x 128 B, 10,000 a commit", blobs->Count()), blobs,
                   10000),
           OpenStep("many.open", "open, every blob verified, 128 B", blobs),
           FetchStep("many.fetch", fmt::format("{} random verified fetches, 128 B", reads), blobs,
                     reads, true),
           FetchStep("many.fetch-many", "the same, 64 a call", blobs, reads, true, 64),
           SizesStep("many.sizes", fmt::format("{} sizes among them, half absent", reads), blobs,
                     reads)}};
}

}  // namespace

const std::vector<std::pair<std::string, ScenarioMaker>>& AllScenarios() {
  static const std::vector<std::pair<std::string, ScenarioMaker>> all = {
      {"tiny", TinyBlobs},   {"small", SmallBlobs}, {"medium", MediumBlobs},
      {"large", LargeBlobs}, {"huge", HugeBlobs},   {"commits", SingleCommits},
      {"many", ManyBlobs}};
  return all;
}

}  // namespace bench
