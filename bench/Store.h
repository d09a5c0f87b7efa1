// What a workload asks of a store. Blobring and each peer implement it.
//
// Put and Delete are one durable transaction each: whatever the store needs for that, at least one
// flush, is inside. Every store computes the MD5 key of what it puts. Failures throw
// std::runtime_error.
// Threads: one caller at a time.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "bench/Blobs.h"

namespace bench {

class Store {
 public:
  using Visitor = std::function<void(const Key& key, Blob data)>;

  virtual ~Store() = default;

  // Creates the store or opens the existing one.
  virtual void Open() = 0;
  virtual void Close() = 0;
  virtual void Put(std::span<const Blob> blobs) = 0;
  virtual void Delete(std::span<const Key> keys) = 0;

  // Returns the space of deleted blobs to the file system.
  virtual void Compact() = 0;

  // Copies a blob that exists into out.
  virtual void Get(const Key& key, std::string& out) = 0;

  // The same for many; a store may have something faster. REQUIRES: out has as many.
  virtual void GetMany(std::span<const Key> keys, std::span<std::string> out) {
    for (std::size_t i = 0; i < keys.size(); ++i) Get(keys[i], out[i]);
  }

  // One blob through a small buffer, where the store can: put in one durable transaction, and read
  // and compared with its key.
  virtual void PutInPieces(const Blob& blob) { Put({&blob, 1}); }
  virtual void CheckInPieces(const Key& key) {
    std::string out;
    Get(key, out);
    const auto* bytes = reinterpret_cast<const unsigned char*>(out.data());
    Require(DigestOf({bytes, out.size()}) == key, "read", "comparing a digest");
  }

  // The size of a blob in bytes; -1 if there is none.
  virtual std::int64_t SizeOf(const Key& key) = 0;

  // Visits every key in the store's own order. data is undefined unless withData.
  virtual void ForEach(bool withData, const Visitor& visit) = 0;

  // Whether Open and Get compare every blob with its key themselves.
  virtual bool Verifies() const { return false; }

  // Compares every blob with its key.
  virtual void CheckDigests() {
    ForEach(true, [](const Key& key, Blob data) {
      Require(DigestOf(data) == key, "check", "comparing a digest");
    });
  }
};

struct Contender {
  std::string name;
  std::string note;  // version and settings
  std::unique_ptr<Store> (*make)(const std::filesystem::path& directory);
};

Contender Blobring();
Contender Lmdb();
Contender Sqlite();
Contender RocksDb();
Contender LevelDb();

}  // namespace bench
