// Follows the records that the header of a pack or journal counts, without a lock and without
// changing anything. What counts as damage is what a load takes for it, see docs/format.md.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "tools/Layout.h"
#include "tools/SalvageFile.h"

namespace tool {

// A store or delete record.
struct WalkedRecord {
  uint64_t offset = 0;
  int64_t transactionId = 0;
  blobring::Hash hash;
  bool isStore = false;
  uint32_t blobSize = 0;  // bytes; 0 for a delete

  uint64_t dataOffset() const { return offset + format::kStoreHeadSize; }
  uint64_t end() const { return isStore ? dataOffset() + blobSize : offset + format::kDeleteSize; }
};

struct WalkedTransaction {
  uint64_t offset = 0;  // of the start record
  uint64_t end = 0;     // past the end record
  int64_t id = 0;
  uint64_t storeCount = 0;
  uint64_t deleteCount = 0;
  uint64_t blobBytes = 0;  // of its stores

  uint64_t bodyOffset() const { return offset + format::kStartSize; }
  uint64_t bodySize() const { return end - format::kEndSize - bodyOffset(); }
  uint64_t recordCount() const { return storeCount + deleteCount + 2; }
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
  std::optional<WalkedTransaction> mismatched;
  bool lastIsTorn = false;  // a power cut can have left this of the last commit (TornCommit.h)
};

struct WalkOptions {
  bool digest = true;  // compare each transaction with its digest; else the structure alone counts
  // Each may be empty. Called in the order of the file, a transaction before its records, and only
  // for what is whole.
  std::function<void(const WalkedTransaction&)> transaction = {};
  std::function<void(const WalkedRecord&)> record = {};
  std::function<void(uint64_t)> progress = {};  // bytes digested since the last call
};

// `head` is that of the file. Throws what the callbacks throw. Memory: about 1 MiB.
Walked Walk(SalvageFile& file, const FileHead& head, const WalkOptions& options);

// The records of a transaction in their order, until `visit` returns false. Returns where they
// break off: the end of the body if all of it is records.
uint64_t VisitRecords(SalvageFile& file, uint64_t bodyOffset, uint64_t bodyEnd,
                      const std::function<bool(const WalkedRecord&)>& visit);

}  // namespace tool
