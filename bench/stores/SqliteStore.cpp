#include <sqlite3.h>

#include "bench/Require.h"
#include "bench/Store.h"

namespace bench {

namespace {

class SqliteStore : public Store {
 public:
  explicit SqliteStore(const std::filesystem::path& directory) : path(directory / "blobs.db") {}
  ~SqliteStore() override { Release(); }

  void Open() override {
    RequireOk(sqlite3_open(path.c_str(), &database), "open");
    Execute("PRAGMA journal_mode=WAL");
    Execute("PRAGMA synchronous=FULL");
    Execute("CREATE TABLE IF NOT EXISTS blobs(key BLOB PRIMARY KEY, data BLOB NOT NULL)");
    insert = Prepare("INSERT OR IGNORE INTO blobs VALUES(?1, ?2)");
    remove = Prepare("DELETE FROM blobs WHERE key = ?1");
    select = Prepare("SELECT data FROM blobs WHERE key = ?1");
    selectSize = Prepare("SELECT length(data) FROM blobs WHERE key = ?1");
    selectKeys = Prepare("SELECT key FROM blobs");
    selectAll = Prepare("SELECT key, data FROM blobs");
  }

  void Close() override { Release(); }

  void Put(std::span<const Blob> blobs, Key* keys) override {
    Execute("BEGIN");
    for (const Blob& blob : blobs) {
      *keys = DigestOf(blob);
      Bind(insert, 1, *keys++);
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
    Require(sqlite3_step(select) == SQLITE_ROW, kSqlite, "select");
    const auto* data = static_cast<const char*>(sqlite3_column_blob(select, 0));
    out.assign(data, static_cast<std::size_t>(sqlite3_column_bytes(select, 0)));
    RequireOk(sqlite3_reset(select), "reset");
  }

  std::int64_t SizeOf(const Key& key) override {
    Bind(selectSize, 1, key);
    const std::int64_t size = sqlite3_step(selectSize) == SQLITE_ROW ? sqlite3_column_int64(selectSize, 0) : -1;
    RequireOk(sqlite3_reset(selectSize), "reset");
    return size;
  }

  void ForEachKey(const Visitor& visit) override {
    while (sqlite3_step(selectKeys) == SQLITE_ROW) visit(KeyOf(selectKeys), {});
    RequireOk(sqlite3_reset(selectKeys), "reset");
  }

  void ForEachBlob(const Visitor& visit) override {
    while (sqlite3_step(selectAll) == SQLITE_ROW) {
      const auto* data = static_cast<const unsigned char*>(sqlite3_column_blob(selectAll, 1));
      visit(KeyOf(selectAll), {data, static_cast<std::size_t>(sqlite3_column_bytes(selectAll, 1))});
    }
    RequireOk(sqlite3_reset(selectAll), "reset");
  }

  // Looks at the structure of pages, rows and index; there are no checksums.
  bool CheckOwnWay() override {
    Execute("PRAGMA integrity_check");
    return true;
  }

 private:
  void RequireOk(int result, const char* call) {
    Require(result == SQLITE_OK, kSqlite, std::string(call) + " (" + sqlite3_errmsg(database) + ")");
  }

  void Execute(const char* sql) { RequireOk(sqlite3_exec(database, sql, nullptr, nullptr, nullptr), sql); }

  sqlite3_stmt* Prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    RequireOk(sqlite3_prepare_v3(database, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr), sql);
    return statement;
  }

  void Bind(sqlite3_stmt* statement, int position, Blob bytes) {
    RequireOk(sqlite3_bind_blob64(statement, position, bytes.data(), bytes.size(), SQLITE_STATIC), "bind");
  }

  void Finish(sqlite3_stmt* statement) {
    Require(sqlite3_step(statement) == SQLITE_DONE, kSqlite, "step");
    RequireOk(sqlite3_reset(statement), "reset");
  }

  static Key KeyOf(sqlite3_stmt* statement) {
    Key key;
    std::copy_n(static_cast<const unsigned char*>(sqlite3_column_blob(statement, 0)), key.size(), key.begin());
    return key;
  }

  void Release() {
    for (sqlite3_stmt** statement : {&insert, &remove, &select, &selectSize, &selectKeys, &selectAll}) {
      sqlite3_finalize(*statement);
      *statement = nullptr;
    }
    sqlite3_close(database);
    database = nullptr;
  }

  std::string path;
  sqlite3* database = nullptr;
  sqlite3_stmt* insert = nullptr;
  sqlite3_stmt* remove = nullptr;
  sqlite3_stmt* select = nullptr;
  sqlite3_stmt* selectSize = nullptr;
  sqlite3_stmt* selectKeys = nullptr;
  sqlite3_stmt* selectAll = nullptr;
};

}  // namespace

std::unique_ptr<Store> MakeSqlite(const std::filesystem::path& directory) {
  return std::make_unique<SqliteStore>(directory);
}

}  // namespace bench
