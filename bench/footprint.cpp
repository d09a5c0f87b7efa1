// footprint DIRECTORY: the memory that a store takes, step by step, on the host it runs on. Fails
// if a step keeps more than the store needs afterwards. Store: bytes of the memory manager. Heap:
// bytes that malloc has given out, those of the store and what they cost beside included.
#include <blobring/blobring.h>
#include <blobring/host.h>
#include <malloc.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace {

constexpr int kBlobCount = 100'000;
constexpr std::int64_t kMostPerBlob = sizeof(void*) == 4 ? 120 : 160;
constexpr std::int64_t kKeptForCommits =
    160 * 1024;                               // a journal's record buffer and a list of changes
constexpr std::int64_t kKeptByMalloc = 1024;  // freed blocks in its caches count as given out

struct Figures {
  std::int64_t store, heap;
};

void Require(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(what);
}

Figures Print(const char* step) {
  BlobringHostMemoryUse use;
  BlobringHostMemoryTotal(&use);
  const struct mallinfo2 heap = mallinfo2();
  const Figures now = {static_cast<std::int64_t>(use.liveBytes),
                       static_cast<std::int64_t>(heap.uordblks + heap.hblkhd)};
  std::printf("%-36s %10lld %10lld\n", step, static_cast<long long>(now.store),
              static_cast<long long>(now.heap));
  return now;
}

void Commit(int index, long long id, int first, int last, std::size_t padding) {
  Require(BCStartTransaction(index, &id) == 1, "start");
  for (int n = first; n < last; ++n) {
    const std::string blob = "blob " + std::to_string(n) + std::string(padding, 'x');
    unsigned char hash[BLOBRING_HASH_SIZE];
    const auto* bytes = reinterpret_cast<const unsigned char*>(blob.data());
    Require(BCPut(index, bytes, static_cast<int>(blob.size()), hash) == 1, "put");
  }
  Require(BCEndTransaction(index, &id) == 1, "end");
}

void Run(const char* directory) {
  std::filesystem::remove_all(directory);
  std::filesystem::create_directories(directory);
  std::printf("%-36s %10s %10s\n", "bytes", "store", "heap");
  int index = BCOpen(directory, nullptr);
  const Figures empty = Print("an empty store of two slots");
  Commit(index, 1, 0, kBlobCount, 0);
  const Figures full = Print("100,000 blobs");
  const std::int64_t perBlob = (full.heap - empty.heap) / kBlobCount;
  std::printf("per blob: %lld\n", static_cast<long long>(perBlob));
  Require(perBlob <= kMostPerBlob, "a blob takes too much memory");

  Commit(index, 2, kBlobCount, kBlobCount + 1, std::size_t{64} << 20);
  const Figures large = Print("and one of 64 MiB");
  Require(BCFsck(index) == 1, "check");
  const Figures checked = Print("checked");
  Require(BCRepack(index) == 1, "repack");
  const Figures repacked = Print("repacked");
  for (const Figures& after : {checked, repacked})
    Require(after.store <= large.store && after.heap <= large.heap + kKeptByMalloc,
            "a check or a repack keeps memory");
  BCDispose(index);

  index = BCOpen(directory, nullptr);
  Require(Print("opened again").store <= repacked.store + kKeptForCommits, "a load keeps memory");
  BCDispose(index);
  Require(Print("disposed of").store == 0, "something is left of a store");
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 2) return std::fputs("usage: footprint DIRECTORY\n", stderr), 2;
  Run(argv[1]);
} catch (const std::exception& e) {
  std::fprintf(stderr, "footprint: %s\n", e.what());
  return 1;
}
