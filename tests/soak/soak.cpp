// Random operations on a store in a real directory against a model, for as
// many seconds as the first argument says; the second is the seed. Reopenings,
// repacks, abandoned transactions, processes that are killed; every so often
// the whole contents are compared.
//
// The work is done by child processes, which tell of every commit through a
// pipe once it is acknowledged. The parent keeps the model.
#include <blobring/blobring.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr unsigned kBlobs = 2000;

// Blob number n, always the same bytes: empty to some 300 KiB, mostly small.
std::string Blob(unsigned n) {
  std::mt19937 random(n);
  const std::size_t size = n % 50 == 0 ? random() % 300000 : n % 7 == 0 ? random() % 20000 : random() % 300;
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes + std::to_string(n);
}

void HashOf(const std::string& data, unsigned char* hash) {
  BCMD5ChkSum(reinterpret_cast<const unsigned char*>(data.data()), static_cast<unsigned>(data.size()), hash);
}

// What a child tells of: a change that it is about to commit, and the commit.
struct Message {
  enum Kind : std::uint32_t { Store, Delete, Begin, Committed, Repacked, Failed } kind;
  std::uint32_t blob;
};

[[noreturn]] void Fail(const char* what, unsigned blob = 0) {
  std::fprintf(stderr, "soak: %s (blob %u)\n", what, blob);
  std::exit(1);
}

class Store {
 public:
  Store(const fs::path& directory, int slots) {
    std::u16string wide;
    for (const char c : directory.string()) wide.push_back(static_cast<unsigned char>(c));
    index = BCInitialize(wide.c_str());
    for (int slot = 0; slot < slots; ++slot) BCAddPackDir(index, wide.c_str());
    BCSetDamagePolicy(index, BLOBRING_DAMAGE_KEEP);
    if (BCLoad(index) != 1) Fail("the load failed");
  }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;
  ~Store() { BCDispose(index); }
  int index;
};

// Works on the store until it is killed.
class Worker {
 public:
  Worker(const fs::path& directory, int slots, int toldTo, std::uint32_t seed)
      : store(directory, slots), pipe(toldTo), random(seed) {}

  [[noreturn]] void Run() {
    for (;;) {
      if (Transaction() && Draw() % 60 == 0) {
        if (BCRepack(store.index) != 1) Tell(Message::Failed);
        Tell(Message::Repacked);
      }
      if (Draw() % 200 == 0 && BCFsck(store.index) != 1) Tell(Message::Failed);
    }
  }

 private:
  void Tell(Message::Kind kind, std::uint32_t blob = 0) {
    const Message message{kind, blob};
    if (::write(pipe, &message, sizeof message) != sizeof message) ::_exit(0);
  }

  // Whether it was ended: a repack waits for no open one.
  bool Transaction() {
    const long long id = static_cast<long long>(Draw());
    if (BCStartTransaction(store.index, &id) != 1) Tell(Message::Failed);
    const unsigned changes = 1 + Draw() % (Draw() % 10 == 0 ? 200 : 8);
    std::vector<Message> made;
    for (unsigned i = 0; i < changes; ++i) {
      const std::uint32_t n = Draw() % kBlobs;
      const std::string blob = Blob(n);
      unsigned char hash[BLOBRING_HASH_SIZE];
      bool good = false;
      if (Draw() % 3 == 0) {
        HashOf(blob, hash);
        good = BCDelete(store.index, hash) == 1;
        made.push_back({Message::Delete, n});
      } else {
        good = BCPut(store.index, reinterpret_cast<const unsigned char*>(blob.data()), static_cast<int>(blob.size()),
                     hash) == 1;
        made.push_back({Message::Store, n});
      }
      if (!good) Tell(Message::Failed, n);
    }
    if (Draw() % 10 == 0) return false;  // abandoned by the next
    Tell(Message::Begin);
    for (const Message& change : made) Tell(change.kind, change.blob);
    if (BCEndTransaction(store.index, &id) != 1) Tell(Message::Failed);
    Tell(Message::Committed);
    return true;
  }

  std::uint32_t Draw() { return static_cast<std::uint32_t>(random()); }

  Store store;
  int pipe;
  std::mt19937 random;
};

struct Figures {
  std::uint64_t kills = 0, commits = 0, changes = 0, repacks = 0, comparisons = 0, inFlightKept = 0;
};

using Model = std::set<std::uint32_t>;

bool Holds(int index, std::uint32_t n) {
  const std::string blob = Blob(n);
  unsigned char hash[BLOBRING_HASH_SIZE];
  HashOf(blob, hash);
  const int size = BCGetSize(index, hash);
  if (size < 0) return false;
  std::string read(blob.size(), '\0');
  if (size != static_cast<int>(blob.size()) ||
      BCGet(index, hash, reinterpret_cast<unsigned char*>(read.data()), size) != 0 || read != blob)
    Fail("a blob reads back wrong", n);
  return true;
}

Model Contents(const fs::path& directory, int slots) {
  const Store store(directory, slots);
  if (BCFsck(store.index) != 1) Fail("the check failed");
  Model found;
  for (std::uint32_t n = 0; n < kBlobs; ++n)
    if (Holds(store.index, n)) found.insert(n);
  if (BCGetAllBlobHashesReset(store.index) != static_cast<int>(found.size()))
    Fail("there are more blobs than there should be");
  return found;
}

// Lets a child work for a while, kills it and returns what may be there.
void Round(const fs::path& directory, int slots, std::mt19937& random, Model& committed, Figures& figures) {
  int ends[2];
  if (::pipe(ends) != 0) Fail("no pipe");
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(ends[0]);
    Worker(directory, slots, ends[1], static_cast<std::uint32_t>(random())).Run();
  }
  ::close(ends[1]);
  Model inFlight = committed;
  const auto until = Clock::now() + std::chrono::milliseconds(random() % 1500);
  Message message{};
  bool killed = false;
  while (::read(ends[0], &message, sizeof message) == sizeof message) {
    switch (message.kind) {
      case Message::Begin:
        inFlight = committed;
        break;
      case Message::Store:
        inFlight.insert(message.blob);
        ++figures.changes;
        break;
      case Message::Delete:
        inFlight.erase(message.blob);
        ++figures.changes;
        break;
      case Message::Committed:
        committed = inFlight;
        ++figures.commits;
        break;
      case Message::Repacked:
        ++figures.repacks;
        break;
      case Message::Failed:
        Fail("an operation failed", message.blob);
    }
    if (!killed && Clock::now() >= until) {
      ::kill(child, SIGKILL);
      killed = true;
    }
  }
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  ::close(ends[0]);
  ++figures.kills;

  const Model found = Contents(directory, slots);
  ++figures.comparisons;
  if (found == committed) return;
  if (found != inFlight) Fail("the contents are neither the last commit's nor the one's under way");
  ++figures.inFlightKept;
  committed = inFlight;
}

}  // namespace

int main(int argc, char** argv) {
  const long seconds = argc > 1 ? std::atol(argv[1]) : 5;
  const std::uint32_t seed = argc > 2 ? static_cast<std::uint32_t>(std::atol(argv[2])) : std::random_device()();
  std::printf("soak of %ld s, seed %u\n", seconds, seed);
  std::fflush(stdout);
  std::mt19937 random(seed);
  std::string pattern = (fs::temp_directory_path() / "blobring-soak-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) Fail("no directory");
  const fs::path directory = pattern;
  const int slots = 1 + static_cast<int>(random() % 3);

  Model committed;
  Figures figures;
  const auto end = Clock::now() + std::chrono::seconds(seconds);
  while (Clock::now() < end) Round(directory, slots, random, committed, figures);
  fs::remove_all(directory);
  std::printf(
      "%d slots: %llu processes killed, %llu commits of %llu changes, %llu repacks, %llu comparisons; "
      "%llu commits were whole that had not been acknowledged\n",
      slots, static_cast<unsigned long long>(figures.kills), static_cast<unsigned long long>(figures.commits),
      static_cast<unsigned long long>(figures.changes), static_cast<unsigned long long>(figures.repacks),
      static_cast<unsigned long long>(figures.comparisons), static_cast<unsigned long long>(figures.inFlightKept));
  return 0;
}
