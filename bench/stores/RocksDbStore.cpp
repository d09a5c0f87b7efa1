#include <rocksdb/db.h>

#include "bench/Require.h"
#include "bench/Store.h"

namespace bench {

namespace {

rocksdb::Slice SliceOf(Blob bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

Blob BytesOf(const rocksdb::Slice& slice) {
  return {reinterpret_cast<const unsigned char*>(slice.data()), slice.size()};
}

void RequireOk(const rocksdb::Status& status, const char* call) {
  Require(status.ok(), kRocksDb, std::string(call) + " (" + status.ToString() + ")");
}

class RocksDbStore : public Store {
 public:
  explicit RocksDbStore(const std::filesystem::path& directory) : path(directory / "blobs") {}

  void Open() override {
    rocksdb::Options options;
    options.create_if_missing = true;
    rocksdb::DB* opened = nullptr;
    RequireOk(rocksdb::DB::Open(options, path, &opened), "open");
    database.reset(opened);
  }

  void Close() override {
    RequireOk(database->Close(), "close");
    database.reset();
  }

  void Put(std::span<const Blob> blobs, Key* keys) override {
    rocksdb::WriteBatch batch;
    for (const Blob& blob : blobs) {
      *keys = DigestOf(blob);
      RequireOk(batch.Put(SliceOf(*keys++), SliceOf(blob)), "put");
    }
    Write(batch);
  }

  void Delete(std::span<const Key> keys) override {
    rocksdb::WriteBatch batch;
    for (const Key& key : keys) RequireOk(batch.Delete(SliceOf(key)), "delete");
    Write(batch);
  }

  void Compact() override { RequireOk(database->CompactRange({}, nullptr, nullptr), "compact"); }

  void Get(const Key& key, std::string& out) override { RequireOk(database->Get({}, SliceOf(key), &out), "get"); }

  std::int64_t SizeOf(const Key& key) override {
    rocksdb::PinnableSlice found;
    const rocksdb::Status status = database->Get({}, database->DefaultColumnFamily(), SliceOf(key), &found);
    if (status.IsNotFound()) return -1;
    RequireOk(status, "get");
    return static_cast<std::int64_t>(found.size());
  }

  void ForEachKey(const Visitor& visit) override {
    Walk([&](const rocksdb::Iterator& at) { visit(KeyOf(at), {}); });
  }

  void ForEachBlob(const Visitor& visit) override {
    Walk([&](const rocksdb::Iterator& at) { visit(KeyOf(at), BytesOf(at.value())); });
  }

  bool CheckOwnWay() override {
    RequireOk(database->VerifyChecksum(), "verify");
    return true;
  }

 private:
  void Write(rocksdb::WriteBatch& batch) {
    rocksdb::WriteOptions options;
    options.sync = true;
    RequireOk(database->Write(options, &batch), "write");
  }

  template <class See>
  void Walk(See see) {
    const std::unique_ptr<rocksdb::Iterator> at(database->NewIterator({}));
    for (at->SeekToFirst(); at->Valid(); at->Next()) see(*at);
    RequireOk(at->status(), "iterate");
  }

  static Key KeyOf(const rocksdb::Iterator& at) {
    Key key;
    std::copy_n(BytesOf(at.key()).begin(), key.size(), key.begin());
    return key;
  }

  std::string path;
  std::unique_ptr<rocksdb::DB> database;
};

}  // namespace

std::unique_ptr<Store> MakeRocksDb(const std::filesystem::path& directory) {
  return std::make_unique<RocksDbStore>(directory);
}

}  // namespace bench
