#include <rocksdb/db.h>
#include <rocksdb/version.h>

#include "bench/stores/LogStructured.h"

namespace bench {
namespace {

struct Library {
  using DB = rocksdb::DB;
  using Iterator = rocksdb::Iterator;
  using Options = rocksdb::Options;
  using Slice = rocksdb::Slice;
  using Status = rocksdb::Status;
  using WriteBatch = rocksdb::WriteBatch;
  using WriteOptions = rocksdb::WriteOptions;
  static void Compact(DB& database) { database.CompactRange({}, nullptr, nullptr); }
};

}  // namespace

Contender RocksDb() {
  return {"RocksDB",
          rocksdb::GetRocksVersionAsString(true) +
              ": its defaults, one write batch a transaction, `sync`",
          MakeLogStructured<Library>};
}

}  // namespace bench
