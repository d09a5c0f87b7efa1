#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <optional>

#include "tests/fuzz/FileModel.h"
#include "tests/support/OpenedStore.h"

namespace fuzz {

namespace {

// The dearest record is a delete: 32 bytes for an entry of 72 in a list that may have room for
// twice as many, and for 120 bytes in the index.
constexpr std::size_t kMemoryPerByte = 10;
// The piece of 64 KiB in which a file is copied, store objects, the list of changes.
constexpr std::size_t kFixedMemory = 80 * 1024;
// Platform calls of one step: opening and keeping files, scanning and copying them in large pieces,
// and for each blob two readings, the second one in small pieces.
constexpr std::uint64_t kFixedCalls = 150;
constexpr std::uint64_t kBytesPerCall = 16 * 1024;
constexpr std::uint64_t kCallsPerBlob = 12;

void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "%sNOT SO: %s\n", sim::Diagnostics().Text().c_str(), what);
  std::abort();
}

std::string PathOf(std::size_t slot, const char* extension) {
  return "/s/" + std::to_string(slot) + extension;
}

bool Exists(const std::string& path) {
  return sim::Files().disk.Lookup(path) != sim::kNoInode;
}

// What is kept of a file.
std::vector<std::string> Copies(const std::string& path) {
  std::vector<std::string> copies;
  for (int n = 1; n <= 4; ++n)
    if (const std::string name = path + ".kept-" + std::to_string(n); Exists(name))
      copies.push_back(test::FileBytes(name));
  return copies;
}

// In its place or as a copy. A file without a record has nothing to keep.
bool IsKept(const std::string& path, std::string_view bytes) {
  const std::vector<std::string> copies = Copies(path);
  return bytes.size() <= test::kHeaderSize || (Exists(path) && test::FileBytes(path) == bytes) ||
         std::find(copies.begin(), copies.end(), bytes) != copies.end();
}

// A repaired journal keeps its whole transactions in place. A copy holds its old header and what
// came after them, up to the header's endOffset.
bool IsJournalKept(const std::string& path, std::string_view bytes) {
  constexpr std::size_t kHeader = test::kHeaderSize;
  if (IsKept(path, bytes)) return true;
  if (const std::uint32_t end = test::Get32(bytes, 20); end >= kHeader)
    bytes = bytes.substr(0, end);
  const std::string now = test::FileBytes(path);
  for (const std::string& copy : Copies(path)) {
    if (copy.size() < kHeader || copy.size() > bytes.size()) continue;
    const std::size_t kept = bytes.size() - copy.size();  // of the records, in place
    if (copy.substr(0, kHeader) == bytes.substr(0, kHeader) &&
        copy.substr(kHeader) == bytes.substr(kHeader + kept) && now.size() >= kHeader + kept &&
        now.substr(kHeader, kept) == bytes.substr(kHeader, kept))
      return true;
  }
  return false;
}

class Life {
 public:
  Life(const std::vector<Slot>& files, unsigned chosen)
      : slots(files), options(chosen), expected(ExpectLoad(files, (chosen & kKeep) != 0)) {}

  void Run() {
    const std::size_t blocksBefore = sim::Memory().liveBlocks;
    PlaceFiles();
    Open();
    CheckFirstLoad();
    index = expected.index;
    sequence = expected.sequence;
    CheckContents();
    Commit("first commit", Has(kDeletes));
    Reopen();
    for (const char* text : {"second commit", "third commit"}) {
      Repack();
      Commit(text, false);
      Reopen();
    }
    store.reset();
    if (Has(kKeep)) CheckDamagedKept();
    Require(sim::Memory().liveBlocks == blocksBefore, "all memory is given back");
    Require(sim::Files().openHandles() == 0, "all files are closed");
    Require(sim::Files().sleptMs == 0, "nothing is waited for");
  }

 private:
  bool Has(Option option) const { return (options & option) != 0; }

  void PlaceFiles() {
    test::FreshMachine();
    for (std::size_t slot = 0; slot < slots.size(); ++slot) {
      test::SetFile(PathOf(slot, ".pak"), slots[slot].pack);
      test::SetFile(PathOf(slot, ".jrn"), slots[slot].journal);
      fileBytes += slots[slot].pack.size() + slots[slot].journal.size();
    }
    memoryBefore = sim::Memory().peakBytes = sim::Memory().liveBytes;
  }

  void Open() {
    StartStep();
    using Policy = test::OpenedStore::Policy;
    store.emplace(static_cast<int>(slots.size()), Has(kKeep) ? Policy::Keep : Policy::Erase);
    EndStep();
  }

  void Reopen() {
    if (Has(kPowerCuts)) sim::Files().CutPower();
    store.reset();
    sim::Files().Restart();
    Open();
    Require(store->loaded, "a store that was in use loads");
    CheckContents();
  }

  void CheckFirstLoad() {
    Require(store->loaded == expected.loaded, "the load succeeds where it should");
    for (std::size_t slot = 0; slot < slots.size() && Has(kKeep); ++slot) {
      Require(IsKept(PathOf(slot, ".pak"), slots[slot].pack), "a pack is left as it was or kept");
      Require(IsJournalKept(PathOf(slot, ".jrn"), slots[slot].journal),
              "a journal is left as it was or kept");
    }
    if (store->loaded) return;
    for (std::size_t slot = 0; slot < slots.size(); ++slot)
      Require(!Exists(PathOf(slot, ".pak")) && !Exists(PathOf(slot, ".jrn")),
              "no file of an erased store is left");
    store.reset();
    Open();
    Require(store->loaded, "an erased store loads");
  }

  // A damaged pack that was newer than the one in use, or no longer says how old it is, is there
  // after everything that followed, with its journal.
  void CheckDamagedKept() const {
    for (std::size_t slot = 0; slot < slots.size(); ++slot) {
      const Reading pack = ReadFile(slots[slot].pack);
      const bool isNewer = pack.sequence > expected.sequence &&
                           static_cast<std::uint32_t>(pack.sequence) % slots.size() == slot;
      const bool isDamaged = pack.end != Reading::End::Clean || pack.countLost;
      if (!pack.headerLost && !(isDamaged && isNewer)) continue;
      Require(IsKept(PathOf(slot, ".pak"), slots[slot].pack), "a damaged pack is kept");
      if (expected.movedAside || slot != expected.journalSlot)
        Require(IsJournalKept(PathOf(slot, ".jrn"), slots[slot].journal), "so is its journal");
    }
  }

  Index::iterator Unsound() {
    return std::find_if(index.begin(), index.end(),
                        [](const auto& blob) { return !blob.second.sound; });
  }

  // Exactly the blobs of the index are there, and every sound one reads back.
  void CheckContents() {
    StartStep();
    std::vector<test::HashBytes> hashes;
    for (const auto& [hash, blob] : index) hashes.push_back(hash);
    Require(test::HashesOf(store->index) == hashes, "the enumeration gives every blob");
    Require((BCFsck(store->index) == 1) == (Unsound() == index.end()),
            "the check finds what is wrong and nothing else");
    const auto many = test::FetchMany(store->index, hashes);
    for (std::size_t i = 0; const auto& [hash, blob] : index) {
      Require(many[i++] == (blob.sound ? std::optional(blob.data) : std::nullopt),
              "each blob of many is right or fails alone");
      Require(test::ReadInPieces(store->index, hash) == many[i - 1], "the same in pieces");
      if (blob.sound) Require(store->GetBy(hash) == blob.data, "a blob can be read");
    }
    EndStep();
  }

  void Commit(std::string data, bool deletes) {
    while (index.count(test::HashOf(data)) != 0) data += '.';
    StartStep();
    const long long id = 0x1122334455667788;
    Require(store->Start(id) && store->Store(data), "a blob can be stored");
    if (deletes && !index.empty()) {
      const auto gone = Unsound() == index.end() ? index.begin() : Unsound();
      test::HashBytes key = gone->first;
      Require(BCDelete(store->index, key.data()) == 1, "a blob can be deleted");
      index.erase(gone);
    }
    Require(store->End(id), "a transaction can be committed");
    Require(store->Has(data), "what was committed can be read");
    index[test::HashOf(data)] = {data, true};
    EndStep();
  }

  void Repack() {
    StartStep();
    const bool refused = sequence < 0 || sequence == std::numeric_limits<std::int32_t>::max();
    const bool done = BCRepack(store->index) == 1;
    EndStep();
    Require(done == (Unsound() == index.end() && !refused),
            "a repack succeeds where every blob is sound");
    if (done) ++sequence;
    if (done || refused) CheckContents();
    Reopen();
  }

  void StartStep() { callsBefore = sim::Files().log.size(); }
  void EndStep() {
    const std::uint64_t calls = sim::Files().log.size() - callsBefore;
    const std::uint64_t blobs = std::max(index.size(), expected.index.size());
    Require(calls <= kFixedCalls * slots.size() + fileBytes / kBytesPerCall + kCallsPerBlob * blobs,
            "platform calls are few");
    Require(sim::Memory().peakBytes - memoryBefore <= kFixedMemory + kMemoryPerByte * fileBytes,
            "memory is in proportion to the files");
  }

  const std::vector<Slot>& slots;
  const unsigned options;
  const Expected expected;
  Index index;  // what the store must hold
  std::int32_t sequence = 0;
  std::optional<test::OpenedStore> store;
  std::size_t fileBytes = 0, memoryBefore = 0;
  std::uint64_t callsBefore = 0;
};

}  // namespace

void LiveThrough(const std::vector<Slot>& slots, unsigned options) {
  Life(slots, options).Run();
}

}  // namespace fuzz
