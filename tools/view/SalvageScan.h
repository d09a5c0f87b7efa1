// What one pack or journal still holds, wherever in the file it lies.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "tools/view/Layout.h"
#include "tools/view/SalvageFile.h"

namespace tool {

struct SalvagedRecord {
  enum class Kind {
    kBlob,    // the data matches the hash
    kBroken,  // stands where a record must be, but the data does not match the hash, or is cut off
    kDelete,  // in a complete transaction
  };

  uint64_t offset;
  uint32_t blobSize;
  Kind kind;
  blobring::Hash hash;

  uint64_t dataOffset() const { return offset + format::kStoreHeaderSize; }
  uint64_t end() const {
    return kind == Kind::kDelete ? offset + format::kDeleteSize : dataOffset() + blobSize;
  }
};

struct SalvageScan {
  FileStatus status;
  uint64_t committedEnd = 0;            // by a sound header, otherwise the file's size
  uint64_t recordCount = 0;             // of records that end before it
  std::vector<SalvagedRecord> records;  // in the order of their offsets
  uint64_t blobs = 0;
  uint64_t deletions = 0;  // of incomplete transactions, too
  uint64_t completeTransactions = 0;
  uint64_t incompleteTransactions = 0;  // that begin before committedEnd
  Ranges noRecord;
  Ranges unreadable;
  bool stoppedProbing = false;  // some places before committedEnd were not tried

  bool IsSound() const { return status.state == FileStatus::State::kSound; }
  bool CountDiffers() const { return IsSound() && recordCount != status.header.recordCount; }
  bool IsCommitted(const SalvagedRecord& record) const {
    return std::min(record.end(), status.size) <= committedEnd;
  }
};

// Follows the records from the header on as a load does; where they break off, those behind, then
// those from the end of the transaction and from the end that the header gives. Only then tries
// every offset in the gaps between what has been verified, and follows what that finds. A blob is
// believed for its hash alone, a transaction for its digest.
//
// Following digests a byte once for its blob and once for its transaction. Probing digests in vain
// at most a multiple of the gap's size, so no contents make the time grow with the square of the
// size. Memory: some 50 bytes for each record found. Throws Fault if the file cannot be opened or
// is not a regular file.
SalvageScan Scan(const std::string& path);

}  // namespace tool
