// What the files of a store say about themselves, read beside the library:
// nothing here writes or takes a lock.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "pack/Format.h"
#include "tools/Fd.h"
#include "tools/Layout.h"

namespace tool {

struct SlotFile {
  enum class State {
    kMissing,
    kNew,      // empty, or cut off while it was created
    kSound,    // the header can be what a commit wrote
    kDamaged,  // it cannot
  };

  State state = State::kMissing;
  std::string path;
  uint64_t size = 0;  // of the file, bytes
  format::FileHeader header;

  bool HasRecords() const { return state == State::kDamaged || header.endOffset > format::kFileHeaderSize; }
  std::string_view StateName() const;
};

// What the first bytes of a file, 24 or all that it has, say about it.
SlotFile DescribeHeader(const std::string& path, uint64_t fileSize, Bytes header);

class SlotFiles {
 public:
  // Reads the headers. Throws Fault when a file is there and cannot be read.
  explicit SlotFiles(const Layout& layout);

  // The pack and the journal of each slot.
  const std::vector<std::array<SlotFile, 2>>& slots() const { return slots_; }

  uint64_t totalSize() const;
  bool HoldRecords() const;

  // Throws Fault, which names the file and says what to do: a file of a slot is
  // missing; no pack has a header that it could be loaded by.
  void RequirePresent() const;
  void RequireLoadable() const;

 private:
  std::string store_;
  std::vector<std::array<SlotFile, 2>> slots_;
};

}  // namespace tool
