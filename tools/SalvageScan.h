// What one pack or journal still holds, wherever in it that lies.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/SalvageFile.h"
#include "tools/SlotFiles.h"

namespace tool {

struct SalvagedRecord {
  enum class Kind {
    kBlob,    // its data matches its hash
    kBroken,  // it stands where a record must be, and its data does not match
    kCut,     // the same, and the file ends before its data does
    kDelete,
    kStart,
    kEnd,
  };

  uint64_t offset;  // of the record
  uint64_t size;    // of the record, bytes; at kCut what is left of it
  uint32_t blobSize;
  Hash hash;  // of stores and deletes
  Kind kind;
  bool whole = false;      // in a transaction whose digest matches, or the start of one
  bool committed = false;  // before the end that the header gives

  uint64_t end() const { return offset + size; }
  uint64_t dataOffset() const { return end() - blobSize; }  // of a kBlob
};

struct SalvageScan {
  SlotFile header;
  uint64_t committedEnd = 0;            // endOffset of a sound header, otherwise the file's end
  uint32_t headerCount = 0;             // records that the header counts
  std::vector<SalvagedRecord> records;  // in the order of their offsets
  std::vector<SalvageFile::Range> unaccounted;
  std::vector<SalvageFile::Range> unreadable;
  bool budgetSpent = false;  // not every place was tried

  bool sound() const { return header.state == SlotFile::State::kSound; }
};

// Follows the records from the header on, and where they break off looks at
// every offset for the next. A blob is believed for its hash alone.
//
// Cost: each byte of a record that is accepted is digested twice at most, and
// what is digested in vain is bounded by a multiple of the file's size, so that
// no contents make the time grow with the square of the size. Memory grows with
// the records found. Throws Fault when the file cannot be opened.
SalvageScan Scan(SalvageFile& file);

}  // namespace tool
