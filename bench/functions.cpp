// Single functions, by Google Benchmark: what a call costs without a disk
// that is waited for.
#include <benchmark/benchmark.h>
#include <blobring/blobring.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <vector>

#include "platform/BlobAllocator.h"
#include "platform/Trace.h"

namespace {

using Hash = std::array<unsigned char, BLOBRING_HASH_SIZE>;

constexpr int kSmall = 1024;
constexpr int kLarge = 256 * 1024;
constexpr int kBlobCount = 10000;

void Require(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(what);
}

std::vector<unsigned char> RandomBytes(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<unsigned char> bytes(size);
  for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
  return bytes;
}

// A store in a directory that goes with it.
class ScratchStore {
 public:
  ScratchStore() {
    std::string name = (std::filesystem::temp_directory_path() / "blobring-functions-XXXXXX").string();
    Require(::mkdtemp(name.data()) != nullptr, "mkdtemp");
    directory = name;
    index = BCInitialize(directory.u16string().c_str());
    for (int slot = 0; slot < 2; ++slot) Require(BCAddPackDir(index, directory.u16string().c_str()) == 1, "slot");
    Require(BCLoad(index) == 1, "load");
  }
  ~ScratchStore() {
    BCDispose(index);
    std::filesystem::remove_all(directory);
  }
  ScratchStore(const ScratchStore&) = delete;
  ScratchStore& operator=(const ScratchStore&) = delete;

  void Start() const { Require(BCStartTransaction(index, &kId) == 1, "start"); }
  void End() const { Require(BCEndTransaction(index, &kId) == 1, "end"); }

  Hash Put(const std::vector<unsigned char>& data) const {
    Hash hash;
    Require(BCPut(index, data.data(), static_cast<int>(data.size()), hash.data()) == 1, "put");
    return hash;
  }

  std::vector<Hash> Fill(int count, int size) const {
    std::vector<Hash> hashes;
    std::vector<unsigned char> data = RandomBytes(static_cast<std::size_t>(size), 1);
    Start();
    for (int i = 0; i < count; ++i) {
      std::memcpy(data.data(), &i, sizeof i);
      hashes.push_back(Put(data));
    }
    End();
    return hashes;
  }

  int index = -1;

 private:
  static constexpr long long kId = 1;
  std::filesystem::path directory;
};

// Every thousandth put ends a transaction, off the clock.
void PutSmall(benchmark::State& state) {
  constexpr int kPerTransaction = 1000;
  const ScratchStore store;
  std::vector<unsigned char> data = RandomBytes(kSmall, 2);
  int count = 0;
  store.Start();
  for (auto _ : state) {
    std::memcpy(data.data(), &count, sizeof count);
    benchmark::DoNotOptimize(store.Put(data));
    if (++count % kPerTransaction != 0) continue;
    state.PauseTiming();
    store.End();
    store.Start();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * kSmall);
}
BENCHMARK(PutSmall)->Iterations(200000);

void Get(benchmark::State& state) {
  const int size = static_cast<int>(state.range(0));
  const ScratchStore store;
  std::vector<Hash> hashes = store.Fill(size == kSmall ? kBlobCount : 100, size);
  std::vector<unsigned char> buffer(static_cast<std::size_t>(size));
  std::size_t i = 0;
  for (auto _ : state) {
    if (BCGet(store.index, hashes[i].data(), buffer.data(), size) != 0) state.SkipWithError("not fetched");
    if (++i == hashes.size()) i = 0;
  }
  state.SetBytesProcessed(state.iterations() * size);
}
BENCHMARK(Get)->Arg(kSmall)->Arg(kLarge);

void SizePresent(benchmark::State& state) {
  const ScratchStore store;
  std::vector<Hash> hashes = store.Fill(kBlobCount, kSmall);
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(BCGetSize(store.index, hashes[i].data()));
    if (++i == hashes.size()) i = 0;
  }
}
BENCHMARK(SizePresent);

void SizeAbsent(benchmark::State& state) {
  const ScratchStore store;
  store.Fill(kBlobCount, kSmall);
  std::vector<unsigned char> hashes = RandomBytes(std::size_t{kBlobCount} * BLOBRING_HASH_SIZE, 3);
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(BCGetSize(store.index, hashes.data() + i));
    i += BLOBRING_HASH_SIZE;
    if (i == hashes.size()) i = 0;
  }
}
BENCHMARK(SizeAbsent);

void EnumerateStep(benchmark::State& state) {
  const ScratchStore store;
  store.Fill(kBlobCount, kSmall);
  Hash hash;
  BCGetAllBlobHashesReset(store.index);
  for (auto _ : state)
    if (BCGetAllBlobHashes(store.index, hash.data(), 0) == 0) BCGetAllBlobHashesReset(store.index);
}
BENCHMARK(EnumerateStep);

// What every call on a blob leaves behind: an event and a numeric record.
void TraceOfACall(benchmark::State& state) {
  const Hash hash = {};
  for (auto _ : state) trace::WriteHashEvent(trace::kEventGet, hash.data());
}
BENCHMARK(TraceOfACall);

void AllocateAndFree(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    void* block = pooled::Acquire(size, TesselMemoryManager::kContainerPool, kTagBytes);
    benchmark::DoNotOptimize(block);
    pooled::Release(block);
  }
}
BENCHMARK(AllocateAndFree)->Arg(96)->Arg(1024)->Arg(65536);

void Digest(benchmark::State& state) {
  const std::vector<unsigned char> data = RandomBytes(static_cast<std::size_t>(state.range(0)), 4);
  Hash hash;
  for (auto _ : state) BCMD5ChkSum(data.data(), static_cast<unsigned>(data.size()), hash.data());
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Digest)->Arg(64)->Arg(kSmall)->Arg(kLarge);

void DigestByOpenSsl(benchmark::State& state) {
  const std::vector<unsigned char> data = RandomBytes(static_cast<std::size_t>(state.range(0)), 4);
  Hash hash;
  EVP_MD* algorithm = EVP_MD_fetch(nullptr, "MD5", nullptr);
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  for (auto _ : state) {
    EVP_DigestInit_ex2(context, algorithm, nullptr);
    EVP_DigestUpdate(context, data.data(), data.size());
    EVP_DigestFinal_ex(context, hash.data(), nullptr);
  }
  EVP_MD_CTX_free(context);
  EVP_MD_free(algorithm);
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(DigestByOpenSsl)->Arg(64)->Arg(kSmall)->Arg(kLarge);

}  // namespace

BENCHMARK_MAIN();
