#include <leveldb/db.h>
#include <leveldb/write_batch.h>

#include "bench/stores/LogStructured.h"

namespace bench {
namespace {

struct Library {
  using DB = leveldb::DB;
  using Iterator = leveldb::Iterator;
  using Options = leveldb::Options;
  using Slice = leveldb::Slice;
  using Status = leveldb::Status;
  using WriteBatch = leveldb::WriteBatch;
  using WriteOptions = leveldb::WriteOptions;
  static void Compact(DB& database) { database.CompactRange(nullptr, nullptr); }
};

}  // namespace

Contender LevelDb() {
  return {"LevelDB",
          std::to_string(leveldb::kMajorVersion) + "." + std::to_string(leveldb::kMinorVersion) +
              ": its defaults, one write batch a transaction, `sync`",
          MakeLogStructured<Library>};
}

}  // namespace bench
