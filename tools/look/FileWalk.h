// What the tool takes from the reader of records (pack/format/RecordReader.h), which a load uses as
// well: without a lock and without changing anything.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "pack/format/RecordReader.h"
#include "tools/Layout.h"
#include "tools/SalvageFile.h"

namespace tool {

// A store or delete record.
struct WalkedRecord {
  explicit WalkedRecord(const format::Record& record)
      : offset(record.offset),
        transactionId(record.op.transactionId),
        hash(std::to_array(record.hash)),
        isStore(record.IsStore()),
        blobSize(record.size) {}
  WalkedRecord(uint64_t at, int64_t id, const blobring::Hash& of, bool stores, uint32_t size)
      : offset(at), transactionId(id), hash(of), isStore(stores), blobSize(size) {}

  uint64_t dataOffset() const { return offset + format::kStoreHeadSize; }
  uint64_t end() const { return isStore ? dataOffset() + blobSize : offset + format::kDeleteSize; }

  uint64_t offset;
  int64_t transactionId;
  blobring::Hash hash;
  bool isStore;
  uint32_t blobSize;  // bytes; 0 for a delete
};

struct Damage {
  uint64_t offset = 0;
  std::string what;
};

struct Walked {
  uint64_t end = format::kFileHeaderSize;  // of the whole transactions
  uint64_t recordCount = 0;                // in them
  uint64_t transactionCount = 0;
  // Where the records break off before the header's count does, and how many are missing.
  std::optional<Damage> damage;
  // Damage: the transaction, where all that is wrong with it is that it does not match its digest.
  std::optional<format::Transaction> mismatched;
  bool lastIsTorn = false;  // a power cut can have left this of the last commit (TornCommit.h)
};

struct WalkOptions {
  bool digest = true;  // compare each transaction with its digest; else the structure alone counts
  // Each may be empty. Called in the order of the file, a transaction before its records, and only
  // for what is whole.
  std::function<void(const format::Transaction&)> transaction = {};
  std::function<void(const WalkedRecord&)> record = {};
  std::function<void(uint64_t)> progress = {};  // where digesting has got to
};

// `head` is that of the file. Throws what the callbacks throw. Memory: about 1 MiB.
Walked Walk(SalvageFile& file, const FileHead& head, const WalkOptions& options);

}  // namespace tool
