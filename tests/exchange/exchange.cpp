// exchange write DIRECTORY, exchange check DIRECTORY: makes two stores by a
// fixed list of calls, and tells whether a directory holds those two. What
// one host wrote is for every other to read, and to write alike.
#include <blobring/blobring.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <exception>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using HashBytes = std::array<unsigned char, BLOBRING_HASH_SIZE>;

// Blobs are numbered. The sizes lie around those at which the digest's
// padding takes another block, and around one page.
constexpr int kSizes[] = {0,   1,   2,    3,    4,    7,    15,   16,   17,   55,   56,    57,   63,
                          64,  65,  119,  120,  128,  255,  256,  1000, 1023, 1024, 1025,  4095, 4096,
                          511, 512, 4097, 5000, 8191, 8192, 9001, 70,   1500, 3000, 60000, 33,   2048};

// Bytes that come out alike everywhere, from the high bits of a linear
// congruential generator.
std::string BlobOf(int number) {
  std::string bytes(static_cast<std::size_t>(kSizes[static_cast<std::size_t>(number) % std::size(kSizes)]), '\0');
  auto state = static_cast<std::uint32_t>(number) * 2654435761U + 1;
  for (char& byte : bytes) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

unsigned char* Data(std::string& bytes) {
  return reinterpret_cast<unsigned char*>(bytes.data());
}
const unsigned char* Data(const std::string& bytes) {
  return reinterpret_cast<const unsigned char*>(bytes.data());
}

// Blobs [first, last) are stored, then those listed deleted, in a transaction
// of its own.
struct Step {
  enum class Call { Put, PutMany, Store } call;
  long long transactionId;
  int first, last;
  std::vector<int> deleted;
  enum class End { Commit, CommitAndRepack, LeaveOpen } end;
};

constexpr int kBlobCount = 120;

const std::vector<Step>& Steps() {
  using enum Step::Call;
  using enum Step::End;
  // Empty blobs are all one and the same.
  static const std::vector<Step> steps = {
      {Put, 1, 0, 30, {}, Commit},
      {PutMany, 0x123456789ABCDEF, 20, 70, {3, 7, 36}, Commit},
      {Store, -2, 70, 80, {0, 79, 50}, CommitAndRepack},
      {Put, 4, 0, 8, {80, 69}, Commit},  // 3 and 7 come back; 80 never was there
      {Store, 5, 80, 81, {80}, CommitAndRepack},
      {PutMany, 0x7FFFFFFFFFFFFFFF, 81, 115, {1, 2, 4}, Commit},
      {Put, 0, 36, 37, {90}, Commit},
      {Put, 6, 115, 120, {5}, LeaveOpen},
  };
  return steps;
}

void Require(bool good, const std::string& what) {
  if (!good) throw std::runtime_error("exchange: " + what);
}

HashBytes HashOf(const std::string& blob) {
  HashBytes hash;
  Require(BCMD5ChkSum(Data(blob), static_cast<unsigned>(blob.size()), hash.data()) == 1, "digest");
  return hash;
}

// What the committed steps leave, computed without a store. The blobs are
// told apart by their bytes.
std::set<std::string> Expected() {
  std::set<std::string> live;
  for (const Step& step : Steps()) {
    if (step.end == Step::End::LeaveOpen) continue;
    for (int n = step.first; n < step.last; ++n) live.insert(BlobOf(n));
    for (const int n : step.deleted) live.erase(BlobOf(n));
  }
  return live;
}

// A store of `slots` slots in a directory, whose packs have one of their own.
class OpenStore {
 public:
  OpenStore(const fs::path& directory, int slots) : index(BCInitialize(directory.u16string().c_str())) {
    for (int slot = 0; slot < slots; ++slot) {
      Require(BCAddPackDir(index, (directory / "packs").u16string().c_str()) == 1, "slot");
    }
    Require(BCSetDamagePolicy(index, BLOBRING_DAMAGE_KEEP) == 1 && BCLoad(index) == 1, "load");
  }
  OpenStore(const OpenStore&) = delete;
  OpenStore& operator=(const OpenStore&) = delete;
  ~OpenStore() { BCDispose(index); }

  void Perform(const Step& step) const {
    Require(BCStartTransaction(index, &step.transactionId) == 1, "start");
    Add(step);
    for (const int n : step.deleted) Require(BCDelete(index, HashOf(BlobOf(n)).data()) == 1, "delete");
    if (step.end == Step::End::LeaveOpen) return;
    Require(BCEndTransaction(index, &step.transactionId) == 1, "end");
    if (step.end == Step::End::CommitAndRepack) Require(BCRepack(index) == 1, "repack");
  }

  void RequireBlob(const std::string& blob) const {
    HashBytes hash = HashOf(blob);
    std::string read(blob.size(), '\0');
    Require(BCGetSize(index, hash.data()) == static_cast<int>(blob.size()), "size");
    Require(BCGet(index, hash.data(), Data(read), static_cast<int>(blob.size())) == 0, "get");
    Require(read == blob, "bytes");
  }

  void RequireNoBlob(const std::string& blob) const {
    Require(BCGetSize(index, HashOf(blob).data()) == -1, "a blob that was deleted or never committed");
  }

  // Exactly `count` hashes, each larger than the one before it.
  void RequireHashes(std::size_t count) const {
    Require(BCGetAllBlobHashesReset(index) == static_cast<int>(count), "number of blobs");
    HashBytes last{}, hash{};
    for (std::size_t i = 0; i < count; ++i, last = hash) {
      Require(BCGetAllBlobHashes(index, hash.data(), 0) == 1, "hash " + std::to_string(i));
      Require(i == 0 || std::memcmp(last.data(), hash.data(), hash.size()) < 0, "order of the hashes");
    }
    Require(BCGetAllBlobHashes(index, hash.data(), 0) == 0, "end of the hashes");
  }

  void RequireSound() const { Require(BCFsck(index) == 1, "check"); }

 private:
  void Add(const Step& step) const {
    std::vector<std::string> blobs;
    for (int n = step.first; n < step.last; ++n) blobs.push_back(BlobOf(n));
    std::vector<BCBlob> all;
    for (const std::string& blob : blobs) all.push_back({Data(blob), static_cast<int>(blob.size()), {}});
    if (step.call == Step::Call::PutMany) {
      const int count = static_cast<int>(all.size());
      Require(BCPutMany(index, all.data(), count) == count, "BCPutMany");
      return;
    }
    for (std::string& blob : blobs) {
      HashBytes hash = HashOf(blob);
      const int size = static_cast<int>(blob.size());
      const bool puts = step.call == Step::Call::Put;
      const int stored =
          puts ? BCPut(index, Data(blob), size, hash.data()) : BCStore(index, hash.data(), Data(blob), size);
      Require(stored == 1, puts ? "BCPut" : "BCStore");
    }
  }

  int index;
};

struct Layout {
  const char* name;
  int slots;
};
constexpr Layout kLayouts[] = {{"ring", 3}, {"single", 1}};

void Write(const fs::path& directory) {
  fs::remove_all(directory);
  for (const auto& [name, slots] : kLayouts) {
    fs::create_directories(directory / name / "packs");
    const OpenStore store(directory / name, slots);
    for (const Step& step : Steps()) store.Perform(step);
  }
}

void Check(const fs::path& directory) {
  const std::set<std::string> live = Expected();
  for (const auto& [name, slots] : kLayouts) {
    const OpenStore store(directory / name, slots);
    for (const std::string& blob : live) store.RequireBlob(blob);
    for (int n = 0; n < kBlobCount; ++n) {
      if (const std::string blob = BlobOf(n); live.count(blob) == 0) store.RequireNoBlob(blob);
    }
    store.RequireHashes(live.size());
    store.RequireSound();
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::string command = argc == 3 ? argv[1] : "";
    if (command == "write") {
      Write(argv[2]);
    } else if (command == "check") {
      Check(argv[2]);
    } else {
      std::cerr << "usage: exchange write|check DIRECTORY\n";
      return 2;
    }
    return 0;
  } catch (const std::exception& e) {
    std::cerr << e.what() << '\n';
    return 1;
  }
}
