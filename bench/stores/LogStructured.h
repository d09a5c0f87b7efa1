// LevelDB and RocksDB, whose interfaces differ in few places. Library names the types of one of
// them and holds those places.
#pragma once

#include <algorithm>

#include "bench/Store.h"

namespace bench {

template <class Library>
class LogStructured final : public Store {
 public:
  explicit LogStructured(const std::filesystem::path& directory) : path(directory / "blobs") {}

  void Open() override {
    typename Library::Options options;
    options.create_if_missing = true;
    typename Library::DB* opened = nullptr;
    RequireOk(Library::DB::Open(options, path, &opened), "open");
    database.reset(opened);
  }

  void Close() override { database.reset(); }

  void Put(std::span<const Blob> blobs) override {
    typename Library::WriteBatch batch;
    for (const Blob& blob : blobs) batch.Put(SliceOf(DigestOf(blob)), SliceOf(blob));
    Write(batch);
  }

  void Delete(std::span<const Key> keys) override {
    typename Library::WriteBatch batch;
    for (const Key& key : keys) batch.Delete(SliceOf(key));
    Write(batch);
  }

  void Compact() override { Library::Compact(*database); }

  void Get(const Key& key, std::string& out) override {
    RequireOk(database->Get({}, SliceOf(key), &out), "get");
  }

  std::int64_t SizeOf(const Key& key) override {
    const auto status = database->Get({}, SliceOf(key), &found);
    if (status.IsNotFound()) return -1;
    RequireOk(status, "get");
    return static_cast<std::int64_t>(found.size());
  }

  void ForEach(bool withData, const Visitor& visit) override {
    const std::unique_ptr<typename Library::Iterator> at(database->NewIterator({}));
    for (at->SeekToFirst(); at->Valid(); at->Next()) {
      Key key;
      std::copy_n(BytesOf(at->key()).begin(), key.size(), key.begin());
      visit(key, withData ? BytesOf(at->value()) : Blob());
    }
    RequireOk(at->status(), "iterate");
  }

 private:
  static typename Library::Slice SliceOf(Blob bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  }
  static Blob BytesOf(const typename Library::Slice& slice) {
    return {reinterpret_cast<const unsigned char*>(slice.data()), slice.size()};
  }
  static void RequireOk(const typename Library::Status& status, const char* call) {
    if (!status.ok()) Require(false, call, status.ToString().c_str());
  }

  void Write(typename Library::WriteBatch& batch) {
    typename Library::WriteOptions options;
    options.sync = true;
    RequireOk(database->Write(options, &batch), "write");
  }

  std::string path;
  std::unique_ptr<typename Library::DB> database;
  std::string found;
};

template <class Library>
std::unique_ptr<Store> MakeLogStructured(const std::filesystem::path& directory) {
  return std::make_unique<LogStructured<Library>>(directory);
}

}  // namespace bench
