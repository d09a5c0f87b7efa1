#include <lmdb.h>

#include <algorithm>

#include "bench/Store.h"

namespace bench {
namespace {

constexpr std::size_t kMapSize = std::size_t{16} << 30;

void RequireZero(int result, const char* call) {
  if (result != 0) Require(false, call, mdb_strerror(result));
}

MDB_val ValueOf(Blob bytes) {
  return {bytes.size(), const_cast<unsigned char*>(bytes.data())};
}

class LmdbStore final : public Store {
 public:
  explicit LmdbStore(std::filesystem::path storeDirectory) : directory(std::move(storeDirectory)) {}
  ~LmdbStore() override { Close(); }

  void Open() override {
    RequireZero(mdb_env_create(&environment), "mdb_env_create");
    RequireZero(mdb_env_set_mapsize(environment, kMapSize), "mdb_env_set_mapsize");
    RequireZero(mdb_env_open(environment, directory.c_str(), 0, 0644), "mdb_env_open");
    Change([&](MDB_txn* transaction) {
      RequireZero(mdb_dbi_open(transaction, nullptr, 0, &table), "mdb_dbi_open");
    });
    RequireZero(mdb_txn_begin(environment, nullptr, MDB_RDONLY, &reader), "mdb_txn_begin");
    mdb_txn_reset(reader);
  }

  void Close() override {
    if (reader != nullptr) mdb_txn_abort(reader);
    if (environment != nullptr) mdb_env_close(environment);
    reader = nullptr;
    environment = nullptr;
  }

  void Put(std::span<const Blob> blobs) override {
    Change([&](MDB_txn* transaction) {
      for (const Blob& blob : blobs) {
        const Key digest = DigestOf(blob);
        MDB_val key = ValueOf(digest), data = ValueOf(blob);
        const int result = mdb_put(transaction, table, &key, &data, MDB_NOOVERWRITE);
        if (result != MDB_KEYEXIST) RequireZero(result, "mdb_put");
      }
    });
  }

  void Delete(std::span<const Key> keys) override {
    Change([&](MDB_txn* transaction) {
      for (const Key& key : keys) {
        MDB_val value = ValueOf(key);
        RequireZero(mdb_del(transaction, table, &value, nullptr), "mdb_del");
      }
    });
  }

  // LMDB frees pages inside its file; a compacting copy returns them.
  void Compact() override {
    const std::filesystem::path copy = directory / "copy";
    std::filesystem::create_directory(copy);
    RequireZero(mdb_env_copy2(environment, copy.c_str(), MDB_CP_COMPACT), "mdb_env_copy2");
    Close();
    std::filesystem::rename(copy / "data.mdb", directory / "data.mdb");
    std::filesystem::remove_all(copy);
    Open();
  }

  void Get(const Key& key, std::string& out) override {
    const Reading reading(reader);
    MDB_val data;
    Require(Find(key, data), "LMDB", "mdb_get");
    out.assign(static_cast<const char*>(data.mv_data), data.mv_size);
  }

  std::int64_t SizeOf(const Key& key) override {
    const Reading reading(reader);
    MDB_val data;
    return Find(key, data) ? static_cast<std::int64_t>(data.mv_size) : -1;
  }

  // The data is mapped, not read, so withData makes no difference.
  void ForEach(bool, const Visitor& visit) override {
    const Reading reading(reader);
    MDB_cursor* cursor = nullptr;
    RequireZero(mdb_cursor_open(reader, table, &cursor), "mdb_cursor_open");
    MDB_val key, data;
    while (mdb_cursor_get(cursor, &key, &data, MDB_NEXT) == 0) {
      Key found;
      std::copy_n(static_cast<const unsigned char*>(key.mv_data), found.size(), found.begin());
      visit(found, {static_cast<const unsigned char*>(data.mv_data), data.mv_size});
    }
    mdb_cursor_close(cursor);
  }

 private:
  // A read transaction, renewed: the fast way to read again and again.
  struct Reading {
    explicit Reading(MDB_txn* reader) : transaction(reader) {
      RequireZero(mdb_txn_renew(reader), "mdb_txn_renew");
    }
    ~Reading() { mdb_txn_reset(transaction); }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;
    MDB_txn* transaction;
  };

  template <class Make>
  void Change(Make make) {
    MDB_txn* transaction = nullptr;
    RequireZero(mdb_txn_begin(environment, nullptr, 0, &transaction), "mdb_txn_begin");
    make(transaction);
    RequireZero(mdb_txn_commit(transaction), "mdb_txn_commit");
  }

  bool Find(const Key& key, MDB_val& data) const {
    MDB_val value = ValueOf(key);
    const int result = mdb_get(reader, table, &value, &data);
    if (result != MDB_NOTFOUND) RequireZero(result, "mdb_get");
    return result == 0;
  }

  std::filesystem::path directory;
  MDB_env* environment = nullptr;
  MDB_txn* reader = nullptr;
  MDB_dbi table = 0;
};

}  // namespace

Contender Lmdb() {
  return {"LMDB",
          std::to_string(MDB_VERSION_MAJOR) + "." + std::to_string(MDB_VERSION_MINOR) + "." +
              std::to_string(MDB_VERSION_PATCH) +
              ": its defaults, a map of 16 GiB, read transactions renewed",
          [](const std::filesystem::path& directory) -> std::unique_ptr<Store> {
            return std::make_unique<LmdbStore>(directory);
          }};
}

}  // namespace bench
