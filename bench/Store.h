// What a workload asks of a store. Ours and each peer stand behind it.
//
// A transaction is durable when the call returns: whatever a store needs for
// that, an fsync at least, is inside. Keys are MD5 digests, which every store
// computes while it puts. Every failure throws std::runtime_error.
// One caller at a time. A store lives in a directory of its own, which exists.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "bench/Blobs.h"

namespace bench {

class Store {
 public:
  using Visitor = std::function<void(const Key& key, Blob data)>;

  Store() = default;
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;
  virtual ~Store() = default;

  // Creates the store or opens what is there.
  virtual void Open() = 0;
  virtual void Close() = 0;

  // Stores blobs in one transaction and writes their keys to `keys`.
  virtual void Put(std::span<const Blob> blobs, Key* keys) = 0;

  // Deletes blobs in one transaction.
  virtual void Delete(std::span<const Key> keys) = 0;

  // Gives the file system back what deleted blobs took.
  virtual void Compact() = 0;

  // Copies a blob into `out`, where it stays the caller's.
  virtual void Get(const Key& key, std::string& out) = 0;

  // The same, compared with its key.
  virtual void GetVerified(const Key& key, std::string& out);

  // Bytes of a blob, -1 when there is none.
  virtual std::int64_t SizeOf(const Key& key) = 0;

  // Shows every key, in the store's own order, and no data.
  virtual void ForEachKey(const Visitor& visit) = 0;

  // Shows every key and its data.
  virtual void ForEachBlob(const Visitor& visit) = 0;

  // Reads every blob and compares it with its key.
  virtual void CheckDigests();

  // The store's own check of everything, such as checksums of its blocks.
  // False when it has none.
  virtual bool CheckOwnWay() { return false; }

  // Whether Open() has verified every blob's bytes already.
  virtual bool VerifiesAtOpen() const { return false; }
};

using StoreFactory = std::function<std::unique_ptr<Store>(const std::filesystem::path& directory)>;

struct Contender {
  std::string name;
  StoreFactory make;
};

// Names of the contenders. The limit is what no store can undercut: the
// digests and a bare append and flush, without an index.
inline constexpr const char* kBlobring = "Blobring";
inline constexpr const char* kLmdb = "LMDB";
inline constexpr const char* kSqlite = "SQLite";
inline constexpr const char* kRocksDb = "RocksDB";
inline constexpr const char* kLevelDb = "LevelDB";
inline constexpr const char* kFiles = "files";
inline constexpr const char* kFileBatches = "file batches";
inline constexpr const char* kHashFile = "hash file";
inline constexpr const char* kLimit = "limit";

std::unique_ptr<Store> MakeBlobring(const std::filesystem::path& directory);
std::unique_ptr<Store> MakeLmdb(const std::filesystem::path& directory);
std::unique_ptr<Store> MakeSqlite(const std::filesystem::path& directory);
std::unique_ptr<Store> MakeRocksDb(const std::filesystem::path& directory);
std::unique_ptr<Store> MakeLevelDb(const std::filesystem::path& directory);
std::unique_ptr<Store> MakeFiles(const std::filesystem::path& directory);
std::unique_ptr<Store> MakeFileBatches(const std::filesystem::path& directory);
std::unique_ptr<Store> MakeHashFile(const std::filesystem::path& directory);

// All of them, in the order of the columns of a table.
const std::vector<Contender>& AllContenders();

// A line about each peer: its version and how it is set up.
std::vector<std::string> PeerNotes();

}  // namespace bench
