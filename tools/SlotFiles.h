// What the files of a store say about themselves, read beside the library:
// nothing here writes or takes a lock.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "pack/Format.h"
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

  // A pack with such a header may yet be loaded.
  bool IsLoadable() const;
  bool HasRecords() const {
    return state == State::kDamaged || header.endOffset > format::kFileHeaderSize;
  }
  std::string_view StateName() const;
};

// The packs and journals of the slots in turn, each pack before its journal.
// Throws Fault when a file is there and cannot be read.
std::vector<SlotFile> ReadSlotFiles(const Layout& layout);

}  // namespace tool
