// The least that a store can be: a hash table with open addressing in a
// mapped file, and a data file. The table's size is fixed, as if the number
// of blobs were known beforehand. A power cut inside a transaction may leave
// half of it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "bench/Descriptor.h"
#include "bench/Mapping.h"
#include "bench/Require.h"
#include "bench/Store.h"

namespace bench {

namespace {

constexpr std::size_t kSlotCount = std::size_t{1} << 18;
constexpr std::size_t kMaxDataSize = std::size_t{4} << 30;

class HashFile : public Store {
 public:
  explicit HashFile(std::filesystem::path storeDirectory) : directory(std::move(storeDirectory)) {}

  void Open() override { OpenFiles(""); }

  void Close() override {
    slots = Mapping();
    content = Mapping();
    tableFile.Close();
    dataFile.Close();
  }

  void Put(std::span<const Blob> blobs, Key* keys) override {
    gathered.clear();
    std::vector<Slot> fresh;
    std::uint64_t end = dataEnd;
    for (const Blob& blob : blobs) {
      *keys = DigestOf(blob);
      fresh.push_back({*keys++, end, static_cast<std::uint32_t>(blob.size()), kUsed});
      end += blob.size();
      if (blob.size() > kMaxGathered) {
        AppendGathered();
        dataFile.Append(blob);
      } else {
        gathered.insert(gathered.end(), blob.begin(), blob.end());
        if (gathered.size() > kMaxGathered) AppendGathered();
      }
    }
    AppendGathered();
    dataFile.Flush();
    dataEnd = end;
    for (const Slot& slot : fresh) *FindFor(slot.key) = slot;
    slots.Flush();
  }

  void Delete(std::span<const Key> keys) override {
    for (const Key& key : keys) Find(key)->state = kDeleted;
    slots.Flush();
  }

  void Compact() override {
    HashFile copy(directory);
    copy.OpenFiles(".new");
    for (const Slot& slot : Slots()) {
      if (slot.state != kUsed) continue;
      Slot moved = slot;
      moved.offset = copy.dataEnd;
      copy.dataFile.Append(DataOf(slot));
      copy.dataEnd += slot.size;
      *copy.FindFor(slot.key) = moved;
    }
    copy.dataFile.Flush();
    copy.slots.Flush();
    Close();
    for (const char* name : {"data", "table"})
      std::filesystem::rename(directory / (std::string(name) + ".new"), directory / name);
    Descriptor(directory, O_RDONLY | O_DIRECTORY).FlushDirectory();
    copy.Close();
    Open();
  }

  void Get(const Key& key, std::string& out) override {
    const Slot* slot = Find(key);
    Require(slot != nullptr, kHashFile, "get");
    const Blob data = DataOf(*slot);
    out.assign(reinterpret_cast<const char*>(data.data()), data.size());
  }

  std::int64_t SizeOf(const Key& key) override {
    const Slot* slot = Find(key);
    return slot == nullptr ? -1 : std::int64_t{slot->size};
  }

  void ForEachKey(const Visitor& visit) override {
    for (const Slot& slot : Slots())
      if (slot.state == kUsed) visit(slot.key, {});
  }

  void ForEachBlob(const Visitor& visit) override {
    for (const Slot& slot : Slots())
      if (slot.state == kUsed) visit(slot.key, DataOf(slot));
  }

 private:
  static constexpr std::size_t kMaxGathered = std::size_t{64} << 10;

  enum State : std::uint32_t { kFree = 0, kUsed = 1, kDeleted = 2 };

  struct Slot {
    Key key;
    std::uint64_t offset;
    std::uint32_t size;
    State state;
  };

  void OpenFiles(const std::string& suffix) {
    dataFile = Descriptor(directory / ("data" + suffix), O_RDWR | O_CREAT | O_APPEND);
    tableFile = Descriptor(directory / ("table" + suffix), O_RDWR | O_CREAT);
    if (::ftruncate(tableFile.Number(), kSlotCount * sizeof(Slot)) != 0) ThrowSystemError("ftruncate");
    slots = Mapping(tableFile, kSlotCount * sizeof(Slot));
    content = Mapping(dataFile, kMaxDataSize);
    struct stat status;
    if (::fstat(dataFile.Number(), &status) != 0) ThrowSystemError("fstat");
    dataEnd = static_cast<std::uint64_t>(status.st_size);
  }

  std::span<Slot> Slots() const { return {reinterpret_cast<Slot*>(slots.Bytes()), kSlotCount}; }

  Blob DataOf(const Slot& slot) const { return {content.Bytes() + slot.offset, slot.size}; }

  // A digest is as good as random, and its first bytes as good as any hash.
  template <class Stop>
  Slot* Probe(const Key& key, Stop stop) const {
    std::uint64_t at = 0;
    std::memcpy(&at, key.data(), sizeof at);
    while (!stop(Slots()[at % kSlotCount])) ++at;
    return &Slots()[at % kSlotCount];
  }

  Slot* Find(const Key& key) const {
    Slot* slot = Probe(key, [&](const Slot& s) { return s.state == kFree || (s.state == kUsed && s.key == key); });
    return slot->state == kUsed ? slot : nullptr;
  }

  Slot* FindFor(const Key& key) const {
    Slot* found = Find(key);
    return found != nullptr ? found : Probe(key, [](const Slot& s) { return s.state != kUsed; });
  }

  void AppendGathered() {
    dataFile.Append(gathered);
    gathered.clear();
  }

  std::filesystem::path directory;
  Descriptor dataFile;
  Descriptor tableFile;
  Mapping slots;
  Mapping content;
  std::uint64_t dataEnd = 0;
  std::vector<unsigned char> gathered;
};

}  // namespace

std::unique_ptr<Store> MakeHashFile(const std::filesystem::path& directory) {
  return std::make_unique<HashFile>(directory);
}

}  // namespace bench
