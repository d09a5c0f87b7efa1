#include "tests/support/OpenedStore.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

namespace test {

std::string TextOf(const HashBytes& hash) {
  std::string text;
  char digits[3];
  for (const unsigned char byte : hash) {
    std::snprintf(digits, sizeof digits, "%x", byte);
    text += digits;
  }
  return text;
}

sim::SimFiles& FreshMachine() {
  sim::SimFiles& files = sim::Files();
  files.Reset();
  files.disk.directories = {"/s", "/p", "/a", "/b", "/c"};
  sim::Memory().allocs.Refuse(0);
  sim::Memory().frees.Refuse(0);
  sim::Diagnostics().Clear();
  return files;
}

std::string FileBytes(const std::string& path) {
  const int inode = sim::Files().disk.Lookup(path);
  EXPECT_NE(inode, sim::kNoInode) << path;
  return inode == sim::kNoInode ? std::string() : sim::Files().disk.inode(inode).visible;
}

void SetFile(const std::string& path, std::string_view bytes) {
  sim::Disk& disk = sim::Files().disk;
  int inode = disk.Lookup(path);
  if (inode == sim::kNoInode) inode = disk.Create(path);
  disk.Truncate(inode, 0);
  disk.Write(inode, 0, bytes.data(), bytes.size());
  disk.Flush(inode);
  disk.SyncDirectory(sim::DirectoryOf(path));
}

BCStatistics StatisticsOf(int index) {
  BCStatistics statistics{};
  statistics.size = sizeof statistics;
  EXPECT_EQ(BCGetStatistics(index, &statistics), 1);
  return statistics;
}

std::optional<std::vector<HashBytes>> HashesOf(int index) {
  const int count = BCGetAllBlobHashesReset(index);
  std::vector<HashBytes> hashes, all(static_cast<std::size_t>(count) + 1);
  for (HashBytes hash{}; BCGetAllBlobHashes(index, hash.data(), 0) == 1;) hashes.push_back(hash);
  auto* const next = reinterpret_cast<unsigned char(*)[BLOBRING_HASH_SIZE]>(all.data());
  all.resize(static_cast<std::size_t>(std::max(BCNextHashes(index, nullptr, next, count + 1), 0)));
  const bool isListed = static_cast<int>(all.size()) == count && hashes == all;
  return isListed && std::ranges::is_sorted(all) ? std::optional(all) : std::nullopt;
}

std::string LastErrorOf(int index) {
  char text[1024];
  BCLastError(index, text, sizeof text);
  return text;
}

std::vector<std::optional<std::string>> FetchMany(int index, const std::vector<HashBytes>& hashes) {
  std::vector<BCFetchItem> items(hashes.size());
  std::vector<std::string> buffers(hashes.size());
  for (std::size_t i = 0; i < hashes.size(); ++i) {
    HashBytes hash = hashes[i];
    buffers[i].resize(static_cast<std::size_t>(std::max(BCGetSize(index, hash.data()), 0)), '.');
    std::copy(hash.begin(), hash.end(), items[i].hash);
    items[i].buffer = reinterpret_cast<unsigned char*>(buffers[i].data());
    items[i].capacity = static_cast<int>(buffers[i].size());
  }
  const int count = BCFetchMany(index, items.data(), static_cast<int>(items.size()));
  std::vector<std::optional<std::string>> read(items.size());
  for (std::size_t i = 0; i < items.size(); ++i)
    if (items[i].result == BLOBRING_FETCHED && items[i].size == items[i].capacity)
      read[i] = std::move(buffers[i]);
  EXPECT_EQ(count, std::count_if(read.begin(), read.end(), [](auto& r) { return r.has_value(); }));
  return read;
}

std::optional<std::string> ReadInPieces(int index, const HashBytes& hash) {
  std::string read;
  const auto append = [](void* to, const unsigned char* data, int size) {
    static_cast<std::string*>(to)->append(reinterpret_cast<const char*>(data),
                                          static_cast<std::size_t>(size));
    return 0;
  };
  if (BCRead(index, hash.data(), append, &read) != BLOBRING_FETCHED) return std::nullopt;
  return read;
}

int StoreInPieces(int index, std::string_view blob, std::string_view given) {
  const auto take = [](void* from, unsigned char* buffer, int capacity) {
    auto& rest = *static_cast<std::string_view*>(from);
    const std::size_t size =
        rest.copy(reinterpret_cast<char*>(buffer),
                  std::min<std::size_t>(static_cast<std::size_t>(capacity), 40'000));
    rest.remove_prefix(size);
    return static_cast<int>(size);
  };
  return BCStoreFrom(index, HashOf(blob).data(), blob.size(), take, &given);
}

blobring::Error ErrorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const blobring::Error& e) {
    return e;
  }
  return {"none", BLOBRING_ERROR_NONE};
}

OpenedStore::OpenedStore(int slots, Policy policy) {
  index = BCInitialize(u"/s");
  try {
    for (int slot = 0; slot < slots; ++slot) BCAddPackDir(index, u"/s");
  } catch (...) {
    BCDispose(index);
    throw;
  }
  if (policy == Policy::Keep) BCSetDamagePolicy(index, BLOBRING_DAMAGE_KEEP);
  loaded = policy != Policy::NotLoaded && BCLoad(index) == 1;
}

OpenedStore::~OpenedStore() {
  BCDispose(index);
}

bool OpenedStore::Store(std::string_view data) const {
  HashBytes hash = HashOf(data);
  std::string copy(data);
  return BCStore(index, hash.data(), reinterpret_cast<unsigned char*>(copy.data()),
                 static_cast<int>(copy.size())) == 1;
}

bool OpenedStore::Delete(std::string_view data) const {
  HashBytes hash = HashOf(data);
  return BCDelete(index, hash.data()) == 1;
}

bool OpenedStore::Commit(long long id, const std::vector<std::string>& blobs) const {
  bool good = Start(id);
  for (const std::string& blob : blobs) good = Store(blob) && good;
  return End(id) && good;
}

std::optional<std::string> OpenedStore::GetBy(HashBytes hash) const {
  const int size = BCGetSize(index, hash.data());
  if (size < 0) return std::nullopt;
  std::string read(static_cast<std::size_t>(size), '\0');
  if (BCGet(index, hash.data(), reinterpret_cast<unsigned char*>(read.data()), size) != 0)
    return std::nullopt;
  return read;
}

}  // namespace test
