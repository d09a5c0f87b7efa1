#include "tests/fuzz/StoreLife.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "tests/fuzz/Bytes.h"

namespace fuzz {

void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "%sNOT SO: %s\n", sim::Diagnostics().Text().c_str(), what);
  std::abort();
}

LifeOptions OptionsOf(std::uint8_t byte) {
  return {(byte & 1) != 0, (byte & 2) != 0, (byte & 4) != 0, (byte & 8) != 0};
}

namespace {

// The dearest record is a delete: 32 bytes for an entry of 72 in a list that
// may have room for twice as many, and for 120 bytes in the index.
constexpr std::size_t kMemoryPerByte = 10;
// The piece of 64 KiB in which a file is copied, store objects, the list of
// changes.
constexpr std::size_t kFixedMemory = 80 * 1024;
// Platform calls of one step: opening and keeping files, scanning and copying
// them in large pieces, and for each blob two readings, the second one in
// small pieces.
constexpr std::uint64_t kFixedCalls = 150;
constexpr std::uint64_t kBytesPerCall = 16 * 1024;
constexpr std::uint64_t kCallsPerBlob = 12;

std::string PathOf(std::size_t slot, const char* extension) {
  return "/s/" + std::to_string(slot) + extension;
}

// Whether a reader finds exactly these bytes at path.
bool Holds(const std::string& path, std::string_view bytes) {
  const sim::Disk& disk = sim::Files().disk;
  const int inode = disk.Lookup(path);
  if (inode == sim::kNoInode) return false;
  const sim::Bytes& found = disk.inode(inode).visible;
  return std::equal(found.begin(), found.end(), bytes.begin(), bytes.end(),
                    [](std::uint8_t a, char b) { return a == static_cast<std::uint8_t>(b); });
}

// In its place or under one of the names for what is kept. A file without a
// record has nothing to keep.
bool IsKept(const std::string& path, std::string_view bytes) {
  if (bytes.size() <= 24 || Holds(path, bytes)) return true;
  for (int n = 1; n <= 4; ++n)
    if (Holds(path + ".kept-" + std::to_string(n), bytes)) return true;
  return false;
}

// A repaired journal keeps its whole transactions in place. A copy holds its
// old header and what came after them, up to the header's endOffset.
bool IsJournalKept(const std::string& path, std::string_view bytes) {
  if (IsKept(path, bytes)) return true;
  if (const std::uint32_t end = Get32(bytes, 20); end >= 24 && end < bytes.size())
    bytes = bytes.substr(0, end);
  const std::string now = test::FileBytes(path);
  for (int n = 1; n <= 4; ++n) {
    const std::string name = path + ".kept-" + std::to_string(n);
    if (sim::Files().disk.Lookup(name) == sim::kNoInode) continue;
    const std::string copy = test::FileBytes(name);
    if (copy.size() < 24 || copy.size() > bytes.size()) continue;
    const std::size_t repaired = bytes.size() - (copy.size() - 24);  // where the copy goes on
    if (copy.substr(0, 24) == bytes.substr(0, 24) && copy.substr(24) == bytes.substr(repaired) &&
        now.size() >= repaired && now.substr(24, repaired - 24) == bytes.substr(24, repaired - 24))
      return true;
  }
  return false;
}

class Life {
 public:
  Life(const std::vector<Slot>& files, const LifeOptions& chosen)
      : slots(files), options(chosen), expected(ExpectLoad(files, chosen.keep)) {}

  void Run() {
    const std::size_t blocksBefore = sim::Memory().liveBlocks();
    PlaceFiles();
    Open();
    CheckFirstLoad();
    index = expected.index;
    sequence = expected.sequence;
    CheckContents();
    ReadUnsound();
    Commit("first commit", options.deletes);
    Reopen();
    for (const char* text : {"second commit", "third commit"}) {
      Repack();
      Commit(text, false);
      Reopen();
    }
    Close(false);
    if (options.keep) CheckDamagedKept();
    Require(sim::Memory().liveBlocks() == blocksBefore, "all memory is given back");
    Require(sim::Files().openHandles() == 0, "all files are closed");
    Require(sim::Files().sleptMs == 0, "nothing is waited for");
  }

 private:
  void PlaceFiles() {
    test::FreshMachine();
    sim::Diagnostics().Record(options.traced);
    for (std::size_t slot = 0; slot < slots.size(); ++slot) {
      test::SetFile(PathOf(slot, ".pak"), slots[slot].pack);
      test::SetFile(PathOf(slot, ".jrn"), slots[slot].journal);
      fileBytes += slots[slot].pack.size() + slots[slot].journal.size();
    }
    memoryBefore = sim::Memory().liveBytes();
    sim::Memory().ResetPeak();
  }

  void Open() {
    StartStep();
    store = BCInitialize(u"/s");
    for (std::size_t slot = 0; slot < slots.size(); ++slot) BCAddPackDir(store, u"/s");
    BCSetDamagePolicy(store, options.keep ? BLOBRING_DAMAGE_KEEP : BLOBRING_DAMAGE_ERASE);
    loaded = BCLoad(store) == 1;
    EndStep();
  }

  void Close(bool powerCut) {
    if (powerCut) sim::Files().CutPower();
    BCDispose(store);
    sim::Files().Restart();
  }

  void Reopen() {
    Close(options.powerCuts);
    Open();
    Require(loaded, "a store that was in use loads");
    CheckContents();
  }

  void CheckFirstLoad() {
    Require(loaded == expected.loaded, "the load succeeds where it should");
    if (options.keep) {
      Require(loaded, "a load that keeps damaged files succeeds");
      for (std::size_t slot = 0; slot < slots.size(); ++slot) {
        Require(IsKept(PathOf(slot, ".pak"), slots[slot].pack), "a pack is left as it was or kept");
        Require(IsJournalKept(PathOf(slot, ".jrn"), slots[slot].journal),
                "a journal is left as it was or kept");
      }
    }
    if (loaded) return;
    for (std::size_t slot = 0; slot < slots.size(); ++slot)
      for (const char* extension : {".pak", ".jrn"})
        Require(sim::Files().disk.Lookup(PathOf(slot, extension)) == sim::kNoInode,
                "no file of an erased store is left");
    Close(false);
    Open();
    Require(loaded, "an erased store loads");
  }

  // A damaged pack that was newer than the one in use, or no longer says how
  // old it is, is there after everything that followed, with its journal.
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

  bool AllSound() const {
    return std::all_of(index.begin(), index.end(),
                       [](const auto& blob) { return blob.second.sound; });
  }

  // Exactly the blobs of the index are there, and every sound one reads back.
  void CheckContents() {
    StartStep();
    Require(BCGetAllBlobHashesReset(store) == static_cast<int>(index.size()),
            "the number of blobs is right");
    test::HashBytes hash;
    for (const auto& [wanted, blob] : index)
      Require(BCGetAllBlobHashes(store, hash.data(), 0) == 1 && hash == wanted,
              "the enumeration gives every blob");
    Require(BCGetAllBlobHashes(store, hash.data(), 0) == 0, "the enumeration ends");
    Require((BCFsck(store) == 1) == AllSound(), "the check finds what is wrong and nothing else");
    for (const auto& [wanted, blob] : index) {
      hash = wanted;
      Require(BCGetSize(store, hash.data()) == static_cast<int>(blob.data.size()),
              "a size is right");
      if (blob.sound) Require(Get(wanted, blob) == 0, "a blob can be read");
    }
    EndStep();
  }

  int Get(test::HashBytes hash, const Blob& blob) const {
    std::string read(blob.data.size(), '\0');
    const int size = static_cast<int>(read.size());
    const int result =
        BCGet(store, hash.data(), reinterpret_cast<unsigned char*>(read.data()), size);
    Require(result != 0 || (blob.sound && read == blob.data),
            "no blob is given out that does not match its hash");
    return result;
  }

  std::map<test::HashBytes, Blob>::iterator Unsound() {
    return std::find_if(index.begin(), index.end(),
                        [](const auto& blob) { return !blob.second.sound; });
  }

  // A failed read closes the store.
  void ReadUnsound() {
    const auto unsound = Unsound();
    if (unsound == index.end()) return;
    StartStep();
    Require(Get(unsound->first, unsound->second) == 2,
            "reading a blob that does not match its hash fails");
    EndStep();
    Reopen();
  }

  void Commit(const std::string& text, bool deletes) {
    std::string data = text;
    while (index.count(test::HashOf(data)) != 0) data += '.';
    StartStep();
    const long long id = 0x1122334455667788;
    test::HashBytes hash = test::HashOf(data);
    Require(BCStartTransaction(store, &id) == 1, "a transaction starts");
    Require(BCStore(store, hash.data(), reinterpret_cast<unsigned char*>(data.data()),
                    static_cast<int>(data.size())),
            "a blob can be stored");
    if (deletes && !index.empty()) {
      auto gone = Unsound();
      if (gone == index.end()) gone = index.begin();
      test::HashBytes key = gone->first;
      Require(BCDelete(store, key.data()) == 1, "a blob can be deleted");
      index.erase(gone);
    }
    Require(BCEndTransaction(store, &id) == 1, "a transaction can be committed");
    index[hash] = {data, true};
    Require(Get(hash, index[hash]) == 0, "what was committed can be read");
    EndStep();
  }

  void Repack() {
    StartStep();
    const bool refused = sequence < 0 || sequence == std::numeric_limits<std::int32_t>::max();
    const bool done = BCRepack(store) == 1;
    EndStep();
    Require(done == (AllSound() && !refused), "a repack succeeds where every blob is sound");
    if (done) ++sequence;
    if (done || refused) CheckContents();
    Reopen();
  }

  void StartStep() { callsBefore = sim::Files().allCalls(); }
  void EndStep() {
    const std::uint64_t calls = sim::Files().allCalls() - callsBefore;
    const std::uint64_t blobs = std::max(index.size(), expected.index.size());
    Require(calls <= kFixedCalls * slots.size() + fileBytes / kBytesPerCall + kCallsPerBlob * blobs,
            "platform calls are few");
    Require(sim::Memory().peakBytes() - memoryBefore <= kFixedMemory + kMemoryPerByte * fileBytes,
            "memory is in proportion to the files");
  }

  const std::vector<Slot>& slots;
  const LifeOptions options;
  const Expected expected;
  Index index;  // what the store must hold
  std::int32_t sequence = 0;
  int store = -1;
  bool loaded = false;
  std::size_t fileBytes = 0, memoryBefore = 0;
  std::uint64_t callsBefore = 0;
};

}  // namespace

void LiveThrough(const std::vector<Slot>& slots, const LifeOptions& options) {
  Life(slots, options).Run();
}

}  // namespace fuzz
