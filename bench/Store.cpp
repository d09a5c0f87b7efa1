#include "bench/Store.h"

#include <leveldb/db.h>
#include <lmdb.h>
#include <openssl/crypto.h>
#include <rocksdb/version.h>
#include <sqlite3.h>

#include "bench/Require.h"

namespace bench {

namespace {

Blob BytesOf(const std::string& text) {
  return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

}  // namespace

void Store::GetVerified(const Key& key, std::string& out) {
  Get(key, out);
  Require(DigestOf(BytesOf(out)) == key, "fetch", "comparing a blob with its key");
}

void Store::CheckDigests() {
  ForEachBlob(
      [](const Key& key, Blob data) { Require(DigestOf(data) == key, "check", "comparing a blob with its key"); });
}

const std::vector<Contender>& AllContenders() {
  static const std::vector<Contender> all = {
      {kBlobring, MakeBlobring}, {kLmdb, MakeLmdb},   {kSqlite, MakeSqlite},           {kRocksDb, MakeRocksDb},
      {kLevelDb, MakeLevelDb},   {kFiles, MakeFiles}, {kFileBatches, MakeFileBatches}, {kHashFile, MakeHashFile},
  };
  return all;
}

std::vector<std::string> PeerNotes() {
  return {
      "LMDB " + std::to_string(MDB_VERSION_MAJOR) + "." + std::to_string(MDB_VERSION_MINOR) + "." +
          std::to_string(MDB_VERSION_PATCH) + ": its defaults (one flushed commit a transaction), a map of 16 GiB, " +
          "read transactions renewed",
      std::string("SQLite ") + sqlite3_libversion() +
          ": WAL, `synchronous=FULL`, one table with the key as its primary key, prepared statements",
      "RocksDB " + rocksdb::GetRocksVersionAsString(true) + ": its defaults, one write batch a transaction, `sync`",
      "LevelDB " + std::to_string(leveldb::kMajorVersion) + "." + std::to_string(leveldb::kMinorVersion) +
          ": its defaults, one write batch a transaction, `sync`",
      "files: one for each blob in 256 directories, written beside its name, flushed, renamed; the directories flushed "
      "once a transaction",
      "file batches: the same, with two calls of `syncfs` a transaction, before and after the renaming, in place of "
      "the flushes; "
      "the kernel's own threads, which write them, are not counted",
      "hash file: our own baseline of 150 lines, an open hash table mapped into memory beside a data file; flushed, "
      "but not safe against a power cut in the middle of a transaction, so that it counts as a peer only where named",
      std::string("limit: the digests by ") + OpenSSL_version(OPENSSL_VERSION) +
          " and a bare append and `fdatasync`; for reads the digests alone, or `memcpy` where nothing is verified",
  };
}

}  // namespace bench
