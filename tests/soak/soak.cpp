// soak [SECONDS [SEED]]: random operations on a store in a real directory. Child processes work on
// it and are killed; after each, the parent compares the contents with the last commit that was
// acknowledged, or with the one under way.
#include <blobring/Store.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bitset>
#include <chrono>
#include <cstdio>
#include <new>
#include <random>
#include <thread>

namespace {

constexpr unsigned kBlobs = 2000;
using Contents = std::bitset<kBlobs>;

// What a child leaves in memory that outlives it.
struct Shared {
  Contents contents[2];
  std::atomic<unsigned> acknowledged;  // which of the two; the other one is under way
  std::atomic<bool> isCommitting;
  std::atomic<unsigned long long> commits, changes, repacks;
};
Shared* shared;

void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "soak: %s\n", what);
  std::_Exit(1);
}

// Always the same bytes: empty to some 300 KiB, mostly small.
std::string BlobOf(unsigned n) {
  std::mt19937 random(n);
  std::string data(random() % (n % 50 == 0 ? 300000 : 300), '\0');
  for (char& byte : data) byte = static_cast<char>(random());
  return data + std::to_string(n);
}

blobring::Hash HashOf(const std::string& data) {
  return blobring::Hash::of(std::as_bytes(std::span(data)));
}

[[noreturn]] void Work(blobring::Store store, std::mt19937 random) {
  const auto draw = [&](unsigned below) { return static_cast<unsigned>(random() % below); };
  for (;;) {
    shared->isCommitting = false;
    const unsigned next = 1 - shared->acknowledged;
    shared->contents[next] = shared->contents[1 - next];
    blobring::Transaction transaction(store, draw(100));
    for (unsigned changes = 1 + draw(draw(10) == 0 ? 200 : 8); changes > 0;
         --changes, ++shared->changes) {
      const unsigned n = draw(kBlobs);
      const bool stores = draw(3) != 0;
      const std::string blob = BlobOf(n);
      stores ? void(store.put(blob)) : store.erase(HashOf(blob));
      shared->contents[next][n] = stores;
    }
    if (draw(10) == 0) continue;  // abandoned
    shared->isCommitting = true;
    transaction.commit();
    shared->acknowledged = next;
    ++shared->commits;
    if (draw(60) == 0 && ++shared->repacks > 0) store.repack();
  }
}

Contents Found(const blobring::Store& store) {
  Require(store.check() == blobring::Store::Checked::Sound, "the check failed");
  Contents found;
  for (unsigned n = 0; n < kBlobs; ++n) {
    const std::string blob = BlobOf(n);
    const auto read = store.get(HashOf(blob));
    if (!read) continue;
    Require(std::ranges::equal(*read, std::as_bytes(std::span(blob))), "a blob reads back wrong");
    found[n] = true;
  }
  Require(store.stats().blobCount == found.count(), "there are more blobs than there should be");
  return found;
}

}  // namespace

int main(int argc, char** argv) {
  const long seconds = argc > 1 ? std::atol(argv[1]) : 5;
  const unsigned seed =
      argc > 2 ? static_cast<unsigned>(std::atol(argv[2])) : std::random_device()();
  std::mt19937 random(seed);
  blobring::Options options;
  options.slots = 1 + static_cast<unsigned>(random() % 3);
  std::printf("soak of %ld s, seed %u, %u slots\n", seconds, seed, options.slots);
  std::fflush(stdout);
  std::string path = (std::filesystem::temp_directory_path() / "blobring-soak-XXXXXX").string();
  Require(::mkdtemp(path.data()) != nullptr, "no directory");
  shared = new (::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                       -1, 0)) Shared();

  unsigned killed = 0, keptUnacknowledged = 0;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  for (; std::chrono::steady_clock::now() < end; ++killed) {
    const std::mt19937 childsRandom(random());
    const pid_t child = ::fork();
    if (child == 0) Work(blobring::Store(path, options), childsRandom);
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 1500));
    Require(::waitpid(child, nullptr, WNOHANG) == 0, "the child ended by itself");
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    const Contents found = Found(blobring::Store(path, options));
    const unsigned last = shared->acknowledged;
    if (found == shared->contents[last]) continue;
    Require(shared->isCommitting && found == shared->contents[1 - last],
            "the contents are neither the last commit's nor the next one's");
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
