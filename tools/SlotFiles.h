// What the files of a store say about themselves, read beside the library and
// without opening the store: nothing here writes or takes a lock.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/Fd.h"
#include "tools/Layout.h"

namespace tool {

// The sizes of what the library writes into a pack or journal.
constexpr uint64_t kFileHeaderSize = 24;
constexpr uint64_t kStoreRecordOverhead = 36;       // beside the blob's bytes
constexpr uint64_t kTransactionOverhead = 40 + 16;  // start and end record

struct SlotFile {
  enum class State {
    kMissing,
    kNew,      // empty, or cut off while it was created
    kSound,    // the header can be what a commit wrote
    kDamaged,  // it cannot
  };

  State state = State::kMissing;
  std::string path;
  uint64_t size = 0;       // of the file, bytes
  int32_t sequence = 0;    // -1: emptied by a repack that was not completed
  uint64_t endOffset = 0;  // bytes in use, header included
};

// What the first bytes of a file, 24 or all that it has, say about it.
SlotFile DescribeHeader(const std::string& path, uint64_t fileSize, Bytes header);

// Reads one header. Throws Fault when the file is there and cannot be read.
SlotFile InspectFile(const std::string& path);

struct Slot {
  SlotFile pack;
  SlotFile journal;
};

class SlotFiles {
 public:
  explicit SlotFiles(const Layout& layout);

  const std::vector<Slot>& slots() const { return slots_; }

  // The slot that the next load takes: the highest sequence among the packs
  // whose headers are sound, and the journal that this sequence selects. -1
  // without such a pack.
  int Current() const;

  // Both throw Fault, which names the file and says what to do, when loading
  // would hide or, if told to, erase what is stored: a file of a slot is gone;
  // that, or no pack can be loaded.
  void RequirePresent() const;
  void RequireLoadable() const;

  // Any file of any slot is there and holds records.
  bool HoldRecords() const;

 private:
  std::string store_;
  std::vector<Slot> slots_;
};

}  // namespace tool
