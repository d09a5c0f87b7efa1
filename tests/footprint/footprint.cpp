// footprint DIRECTORY: what the library and a store take of memory, step by
// step, on the host it runs on. Fails where more is kept than what the store
// holds accounts for.
//
// Store: bytes of the memory manager. System: what it took from the system
// for them. Heap: what malloc has given out, to everyone in the process, less
// what it had at the start. Resident: pages of the library's file and its
// zeroed data that are in memory.
#include <blobring/blobring.h>
#include <blobring/host.h>
#include <malloc.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "store/BlobController.h"

namespace {

namespace fs = std::filesystem;

constexpr int kBlobCount = 100'000;
constexpr std::int64_t kSpareRegions = 4 * 64 * 1024;
constexpr int kLargeBlobSize = 64 << 20;  // a check and a repack need a buffer for it
constexpr std::int64_t kNodeSize = sizeof(void*) == 4 ? 88 : 120;
constexpr std::int64_t kDirectoryPerBlob = sizeof(void*);  // at most
constexpr std::int64_t kKeptForCommits = 160 * 1024;       // a journal's record buffer, a list of changes

struct Figures {
  std::int64_t store, system, heap;
};

Figures Now() {
  BlobringHostMemoryUse use;
  BlobringHostMemoryTotal(&use);
  const struct mallinfo2 heap = mallinfo2();
  return {static_cast<std::int64_t>(use.liveBytes), static_cast<std::int64_t>(use.systemBytes),
          static_cast<std::int64_t>(heap.uordblks + heap.hblkhd)};
}

std::int64_t heapAtStart = 0;

Figures Print(const char* step) {
  const Figures now = Now();
  std::printf("%-44s %10lld %10lld %10lld\n", step, static_cast<long long>(now.store),
              static_cast<long long>(now.system), static_cast<long long>(now.heap - heapAtStart));
  return now;
}

// KiB of the library in memory, from proc(5): the mappings of its file, and
// the one without a name right behind them, which is its zeroed data.
void PrintResident(const char* when) {
  std::ifstream smaps("/proc/self/smaps");
  unsigned long code = 0, data = 0, zeroed = 0;
  std::string line, previousEnd;
  unsigned long* sum = nullptr;
  while (std::getline(smaps, line)) {
    unsigned long long begin = 0, end = 0;
    char rights[8] = {}, path[512] = {};
    if (std::sscanf(line.c_str(), "%llx-%llx %7s %*s %*s %*s %511[^\n]", &begin, &end, rights, path) >= 3) {
      const bool isLibrary = std::strstr(path, "libblobring") != nullptr;
      const bool isBehind = path[0] == '\0' && !previousEnd.empty() && std::to_string(begin) == previousEnd;
      sum = isLibrary ? (rights[1] == 'w' ? &data : &code) : isBehind ? &zeroed : nullptr;
      previousEnd = isLibrary ? std::to_string(end) : "";
    } else if (unsigned long kib = 0; sum != nullptr && std::sscanf(line.c_str(), "Rss: %lu kB", &kib) == 1) {
      *sum += kib;
    }
  }
  std::printf("resident %s, KiB: code %lu, data %lu, zeroed data %lu\n", when, code, data, zeroed);
}

void Require(bool good, const char* what) {
  if (!good) throw std::runtime_error(std::string("footprint: ") + what);
}

void Put(int index, const std::string& blob) {
  unsigned char hash[BLOBRING_HASH_SIZE];
  Require(BCPut(index, reinterpret_cast<const unsigned char*>(blob.data()), static_cast<int>(blob.size()), hash) == 1,
          "put");
}

void Commit(int index, long long id, int first, int last) {
  Require(BCStartTransaction(index, &id) == 1, "start");
  for (int n = first; n < last; ++n) Put(index, "blob " + std::to_string(n));
  Require(BCEndTransaction(index, &id) == 1, "end");
}

// Nothing that a step needed is there after it: not in the store, not in what
// the system gave for it, not on the heap. Regions that emptied may wait for
// the next block of their size.
void RequireNothingKept(const Figures& before, const Figures& after, const char* what) {
  Require(after.store <= before.store && after.system <= before.system + kSpareRegions && after.heap <= before.heap,
          what);
}

int Open(const fs::path& directory) {
  const std::u16string path = directory.u16string();
  const int index = BCInitialize(path.c_str());
  for (int slot = 0; slot < 2; ++slot) Require(BCAddPackDir(index, path.c_str()) == 1, "slot");
  Require(BCLoad(index) == 1, "load");
  return index;
}

void Run(const fs::path& directory) {
  fs::remove_all(directory);
  fs::create_directories(directory);
  std::printf("a BlobController %zu bytes, a BlobFile %zu, an entry of the index %zu\n", sizeof(BlobController),
              sizeof(BlobFile), sizeof(BlobIndex::Entry));
  PrintResident("at the start");
  heapAtStart = Now().heap;
  std::printf("%-44s %10s %10s %10s\n", "bytes", "store", "system", "heap");
  Print("before the first store");

  int index = Open(directory);
  Print("an empty store of two slots");
  Commit(index, 1, 0, 10);
  const Figures small = Print("10 blobs committed");
  BCDispose(index);
  const Figures disposed = Print("disposed of");
  Require(disposed.store == 0, "something is left of a store");

  index = Open(directory);
  const Figures loaded = Print("loaded again");
  Require(loaded.store <= small.store, "a load keeps more than the commits did");
  Commit(index, 2, 10, kBlobCount);
  const Figures imported = Print("100,000 blobs, in one transaction");
  const std::int64_t perBlob = (imported.store - loaded.store) / (kBlobCount - 10);
  std::printf("per blob: %lld\n", static_cast<long long>(perBlob));
  Require(perBlob <= kNodeSize + kDirectoryPerBlob, "a blob takes more than its node and its place in the directory");

  const long long id = 3;
  Require(BCStartTransaction(index, &id) == 1, "start");
  Put(index, std::string(kLargeBlobSize, 'x'));
  Require(BCEndTransaction(index, &id) == 1, "end");
  const Figures large = Print("and one of 64 MiB");
  Require(BCFsck(index) == 1, "check");
  RequireNothingKept(large, Print("checked"), "a check keeps something");
  Require(BCRepack(index) == 1, "repack");
  const Figures repacked = Print("repacked");
  RequireNothingKept(large, repacked, "a repack keeps something");
  BCDispose(index);

  index = Open(directory);
  const Figures reloaded = Print("loaded again");
  Require(reloaded.store <= repacked.store + kKeptForCommits, "a load keeps something");
  Require(repacked.store <= reloaded.store + kKeptForCommits, "the import keeps what it needed itself");
  BCDispose(index);
  Require(Print("disposed of").store == 0, "something is left of a store");
  PrintResident("at the end");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: footprint DIRECTORY\n", stderr);
    return 2;
  }
  try {
    Run(argv[1]);
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
  }
}
