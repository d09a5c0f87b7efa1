#include <openssl/evp.h>
#include <sqlite3.h>

#include <algorithm>

#include "bench/Store.h"

namespace bench {
namespace {

constexpr int kPieceSize = 1 << 20;

Blob ColumnOf(sqlite3_stmt* statement, int column) {
  const auto* bytes = static_cast<const unsigned char*>(sqlite3_column_blob(statement, column));
  return {bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement, column))};
}

class SqliteStore final : public Store {
 public:
  explicit SqliteStore(const std::filesystem::path& directory) : path(directory / "blobs.db") {}
  ~SqliteStore() override { Close(); }

  void Open() override {
    RequireOk(sqlite3_open(path.c_str(), &database), "open");
    Execute("PRAGMA journal_mode=WAL");
    Execute("PRAGMA synchronous=FULL");
    Execute("CREATE TABLE IF NOT EXISTS blobs(key BLOB PRIMARY KEY, data BLOB NOT NULL)");
    insert = Prepare("INSERT OR IGNORE INTO blobs VALUES(?1, ?2)");
    remove = Prepare("DELETE FROM blobs WHERE key = ?1");
    select = Prepare("SELECT data FROM blobs WHERE key = ?1");
    selectSize = Prepare("SELECT length(data) FROM blobs WHERE key = ?1");
    selectRow = Prepare("SELECT rowid FROM blobs WHERE key = ?1");
    selectKeys = Prepare("SELECT key FROM blobs");
    selectAll = Prepare("SELECT key, data FROM blobs");
  }

  void Close() override {
    for (sqlite3_stmt* statement :
         {insert, remove, select, selectSize, selectRow, selectKeys, selectAll})
      sqlite3_finalize(statement);
    insert = remove = select = selectSize = selectRow = selectKeys = selectAll = nullptr;
    sqlite3_close(database);
    database = nullptr;
  }

  void Put(std::span<const Blob> blobs) override {
    Execute("BEGIN");
    for (const Blob& blob : blobs) {
      const Key key = DigestOf(blob);
      Bind(insert, 1, key);
      Bind(insert, 2, blob);
      Finish(insert);
    }
    Execute("COMMIT");
  }

  void Delete(std::span<const Key> keys) override {
    Execute("BEGIN");
    for (const Key& key : keys) {
      Bind(remove, 1, key);
      Finish(remove);
    }
    Execute("COMMIT");
  }

  void Compact() override {
    Execute("VACUUM");
    Execute("PRAGMA wal_checkpoint(TRUNCATE)");
  }

  void Get(const Key& key, std::string& out) override {
    Bind(select, 1, key);
    Require(sqlite3_step(select) == SQLITE_ROW, "SQLite", "select");
    const Blob data = ColumnOf(select, 0);
    out.assign(reinterpret_cast<const char*>(data.data()), data.size());
    RequireOk(sqlite3_reset(select), "reset");
  }

  void PutInPieces(const Blob& blob) override {
    Execute("BEGIN");
    Bind(insert, 1, DigestOf(blob));
    RequireOk(sqlite3_bind_zeroblob64(insert, 2, blob.size()), "bind");
    Finish(insert);
    InPieces(sqlite3_last_insert_rowid(database), true, [&](sqlite3_blob* row, int at, int size) {
      RequireOk(sqlite3_blob_write(row, &blob[static_cast<std::size_t>(at)], size, at), "write");
    });
    Execute("COMMIT");
  }

  void CheckInPieces(const Key& key) override {
    Bind(selectRow, 1, key);
    Require(sqlite3_step(selectRow) == SQLITE_ROW, "SQLite", "select");
    const sqlite3_int64 id = sqlite3_column_int64(selectRow, 0);
    RequireOk(sqlite3_reset(selectRow), "reset");
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> digest(EVP_MD_CTX_new(),
                                                                         EVP_MD_CTX_free);
    EVP_DigestInit_ex(digest.get(), EVP_md5(), nullptr);
    std::vector<unsigned char> piece(kPieceSize);
    InPieces(id, false, [&](sqlite3_blob* row, int at, int size) {
      RequireOk(sqlite3_blob_read(row, piece.data(), size, at), "read");
      EVP_DigestUpdate(digest.get(), piece.data(), static_cast<std::size_t>(size));
    });
    Key found;
    EVP_DigestFinal_ex(digest.get(), found.data(), nullptr);
    Require(found == key, "read", "comparing a digest");
  }

  std::int64_t SizeOf(const Key& key) override {
    Bind(selectSize, 1, key);
    const std::int64_t size =
        sqlite3_step(selectSize) == SQLITE_ROW ? sqlite3_column_int64(selectSize, 0) : -1;
    RequireOk(sqlite3_reset(selectSize), "reset");
    return size;
  }

  void ForEach(bool withData, const Visitor& visit) override {
    sqlite3_stmt* const statement = withData ? selectAll : selectKeys;
    while (sqlite3_step(statement) == SQLITE_ROW) {
      Key key;
      std::copy_n(ColumnOf(statement, 0).begin(), key.size(), key.begin());
      visit(key, withData ? ColumnOf(statement, 1) : Blob());
    }
    RequireOk(sqlite3_reset(statement), "reset");
  }

 private:
  // Calls take with each piece of a row's data.
  template <class Take>
  void InPieces(sqlite3_int64 id, bool writable, Take take) {
    sqlite3_blob* row = nullptr;
    RequireOk(sqlite3_blob_open(database, "main", "blobs", "data", id, writable ? 1 : 0, &row),
              "blob_open");
    const int size = sqlite3_blob_bytes(row);
    for (int at = 0; at < size; at += kPieceSize) take(row, at, std::min(kPieceSize, size - at));
    RequireOk(sqlite3_blob_close(row), "blob_close");
  }

  void RequireOk(int result, const char* call) {
    if (result != SQLITE_OK) Require(false, call, sqlite3_errmsg(database));
  }

  void Execute(const char* sql) {
    RequireOk(sqlite3_exec(database, sql, nullptr, nullptr, nullptr), sql);
  }

  sqlite3_stmt* Prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    RequireOk(sqlite3_prepare_v3(database, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr),
              sql);
    return statement;
  }

  void Bind(sqlite3_stmt* statement, int position, Blob bytes) {
    RequireOk(sqlite3_bind_blob64(statement, position, bytes.data(), bytes.size(), SQLITE_STATIC),
              "bind");
  }

  void Finish(sqlite3_stmt* statement) {
    Require(sqlite3_step(statement) == SQLITE_DONE, "SQLite", "step");
    RequireOk(sqlite3_reset(statement), "reset");
  }

  std::string path;
  sqlite3* database = nullptr;
  sqlite3_stmt *insert = nullptr, *remove = nullptr, *select = nullptr;
  sqlite3_stmt *selectSize = nullptr, *selectRow = nullptr;
  sqlite3_stmt *selectKeys = nullptr, *selectAll = nullptr;
};

}  // namespace

Contender Sqlite() {
  return {"SQLite",
          sqlite3_libversion() +
              std::string(": WAL, `synchronous=FULL`, the key as primary key, prepared statements"),
          [](const std::filesystem::path& directory) -> std::unique_ptr<Store> {
            return std::make_unique<SqliteStore>(directory);
          }};
}

}  // namespace bench
