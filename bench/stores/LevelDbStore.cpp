#include <leveldb/db.h>
#include <leveldb/write_batch.h>

#include "bench/Require.h"
#include "bench/Store.h"

namespace bench {

namespace {

leveldb::Slice SliceOf(Blob bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

Blob BytesOf(const leveldb::Slice& slice) {
  return {reinterpret_cast<const unsigned char*>(slice.data()), slice.size()};
}

void RequireOk(const leveldb::Status& status, const char* call) {
  Require(status.ok(), kLevelDb, std::string(call) + " (" + status.ToString() + ")");
}

class LevelDbStore : public Store {
 public:
  explicit LevelDbStore(const std::filesystem::path& directory) : path(directory / "blobs") {}

  void Open() override {
    leveldb::Options options;
    options.create_if_missing = true;
    leveldb::DB* opened = nullptr;
    RequireOk(leveldb::DB::Open(options, path, &opened), "open");
    database.reset(opened);
  }

  void Close() override { database.reset(); }

  void Put(std::span<const Blob> blobs, Key* keys) override {
    leveldb::WriteBatch batch;
    for (const Blob& blob : blobs) {
      *keys = DigestOf(blob);
      batch.Put(SliceOf(*keys++), SliceOf(blob));
    }
    Write(batch);
  }

  void Delete(std::span<const Key> keys) override {
    leveldb::WriteBatch batch;
    for (const Key& key : keys) batch.Delete(SliceOf(key));
    Write(batch);
  }

  void Compact() override { database->CompactRange(nullptr, nullptr); }

  void Get(const Key& key, std::string& out) override { RequireOk(database->Get({}, SliceOf(key), &out), "get"); }

  std::int64_t SizeOf(const Key& key) override {
    const leveldb::Status status = database->Get({}, SliceOf(key), &found);
    if (status.IsNotFound()) return -1;
    RequireOk(status, "get");
    return static_cast<std::int64_t>(found.size());
  }

  void ForEachKey(const Visitor& visit) override {
    Walk({}, [&](const leveldb::Iterator& at) { visit(KeyOf(at), {}); });
  }

  void ForEachBlob(const Visitor& visit) override {
    Walk({}, [&](const leveldb::Iterator& at) { visit(KeyOf(at), BytesOf(at.value())); });
  }

  bool CheckOwnWay() override {
    leveldb::ReadOptions options;
    options.verify_checksums = true;
    options.fill_cache = false;
    Walk(options, [](const leveldb::Iterator&) {});
    return true;
  }

 private:
  void Write(leveldb::WriteBatch& batch) {
    leveldb::WriteOptions options;
    options.sync = true;
    RequireOk(database->Write(options, &batch), "write");
  }

  template <class See>
  void Walk(const leveldb::ReadOptions& options, See see) {
    const std::unique_ptr<leveldb::Iterator> at(database->NewIterator(options));
    for (at->SeekToFirst(); at->Valid(); at->Next()) see(*at);
    RequireOk(at->status(), "iterate");
  }

  static Key KeyOf(const leveldb::Iterator& at) {
    Key key;
    std::copy_n(BytesOf(at.key()).begin(), key.size(), key.begin());
    return key;
  }

  std::string path;
  std::unique_ptr<leveldb::DB> database;
  std::string found;
};

}  // namespace

std::unique_ptr<Store> MakeLevelDb(const std::filesystem::path& directory) {
  return std::make_unique<LevelDbStore>(directory);
}

}  // namespace bench
