// soak [SECONDS [SEED]]: random operations on a store in a real directory.
// Child processes work on it and are killed; after each, the parent compares
// the contents with the last commit that was acknowledged, or with the one
// under way.
#include <blobring/blobring.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <new>
#include <random>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kBlobs = 2000;
using Contents = std::array<bool, kBlobs>;

// What a child leaves in memory that outlives it.
struct Shared {
  Contents contents[2];
  std::atomic<unsigned> acknowledged;  // which of the two; the other one is under way
  std::atomic<bool> isCommitting;
  std::atomic<unsigned long long> commits, changes, repacks;
};
Shared* shared;

[[noreturn]] void Fail(const char* what, unsigned blob = 0) {
  std::fprintf(stderr, "soak: %s (blob %u)\n", what, blob);
  std::_Exit(1);
}

// Always the same bytes: empty to some 300 KiB, mostly small.
struct Blob {
  explicit Blob(unsigned n) {
    std::mt19937 random(n);
    data.resize(n % 50 == 0 ? random() % 300000 : n % 7 == 0 ? random() % 20000 : random() % 300);
    for (char& byte : data) byte = static_cast<char>(random());
    data += std::to_string(n);
    BCMD5ChkSum(Bytes(), static_cast<unsigned>(Size()), hash);
  }
  unsigned char* Bytes() { return reinterpret_cast<unsigned char*>(data.data()); }
  int Size() const { return static_cast<int>(data.size()); }
  std::string data;
  unsigned char hash[BLOBRING_HASH_SIZE];
};

struct Store {
  Store(const std::u16string& directory, int slots) : index(BCInitialize(directory.c_str())) {
    for (int slot = 0; slot < slots; ++slot) BCAddPackDir(index, directory.c_str());
    BCSetDamagePolicy(index, BLOBRING_DAMAGE_KEEP);
    if (BCLoad(index) != 1) Fail("the load failed");
  }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;
  ~Store() { BCDispose(index); }
  const int index;
};

[[noreturn]] void Work(const Store& store, std::mt19937 random) {
  const auto draw = [&](unsigned below) { return static_cast<unsigned>(random() % below); };
  for (;;) {
    shared->isCommitting = false;
    const unsigned next = 1 - shared->acknowledged;
    shared->contents[next] = shared->contents[1 - next];
    const long long id = draw(100);
    if (BCStartTransaction(store.index, &id) != 1) Fail("a transaction does not start");
    for (unsigned changes = 1 + draw(draw(10) == 0 ? 200 : 8); changes > 0;
         --changes, ++shared->changes) {
      const unsigned n = draw(kBlobs);
      Blob blob(n);
      const bool stores = draw(3) != 0;
      if ((stores ? BCPut(store.index, blob.Bytes(), blob.Size(), blob.hash)
                  : BCDelete(store.index, blob.hash)) != 1)
        Fail("a change failed", n);
      shared->contents[next][n] = stores;
    }
    if (draw(10) == 0) continue;  // abandoned by the next
    shared->isCommitting = true;
    if (BCEndTransaction(store.index, &id) != 1) Fail("a commit failed");
    shared->acknowledged = next;
    ++shared->commits;
    if (draw(60) == 0 && ++shared->repacks > 0 && BCRepack(store.index) != 1)
      Fail("a repack failed");
    if (draw(200) == 0 && BCFsck(store.index) != 1) Fail("the check failed");
  }
}

Contents Found(const Store& store) {
  if (BCFsck(store.index) != 1) Fail("the check failed");
  Contents found{};
  int count = 0;
  for (unsigned n = 0; n < kBlobs; ++n) {
    Blob blob(n);
    if (BCGetSize(store.index, blob.hash) < 0) continue;
    std::string read(blob.data.size(), '\0');
    if (BCGet(store.index, blob.hash, reinterpret_cast<unsigned char*>(read.data()), blob.Size()) !=
            0 ||
        read != blob.data)
      Fail("a blob reads back wrong", n);
    found[n] = true;
    ++count;
  }
  if (BCGetAllBlobHashesReset(store.index) != count)
    Fail("there are more blobs than there should be");
  return found;
}

}  // namespace

int main(int argc, char** argv) {
  const long seconds = argc > 1 ? std::atol(argv[1]) : 5;
  const unsigned seed =
      argc > 2 ? static_cast<unsigned>(std::atol(argv[2])) : std::random_device()();
  std::mt19937 random(seed);
  const int slots = 1 + static_cast<int>(random() % 3);
  std::printf("soak of %ld s, seed %u, %d slots\n", seconds, seed, slots);
  std::fflush(stdout);
  std::string path = (std::filesystem::temp_directory_path() / "blobring-soak-XXXXXX").string();
  if (::mkdtemp(path.data()) == nullptr) Fail("no directory");
  const std::u16string directory(path.begin(), path.end());
  void* memory =
      ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  shared = new (memory) Shared();

  unsigned killed = 0, keptUnacknowledged = 0;
  for (const auto end = Clock::now() + std::chrono::seconds(seconds); Clock::now() < end;
       ++killed) {
    const std::mt19937 childsRandom(random());
    const pid_t child = ::fork();
    if (child == 0) Work(Store(directory, slots), childsRandom);
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 1500));
    int status = 0;
    if (::waitpid(child, &status, WNOHANG) != 0) return 1;  // it has said why
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    const Contents found = Found(Store(directory, slots));
    const unsigned last = shared->acknowledged;
    if (found == shared->contents[last]) continue;
    if (!shared->isCommitting || found != shared->contents[1 - last])
      Fail("the contents are neither the last commit's nor the next one's");
    shared->acknowledged = 1 - last;
    ++keptUnacknowledged;
  }
  std::filesystem::remove_all(path);
  std::printf(
      "%u processes killed, %llu commits of %llu changes, %llu repacks; %u unacknowledged commits "
      "were whole\n",
      killed, shared->commits.load(), shared->changes.load(), shared->repacks.load(),
      keptUnacknowledged);
}
