// The life of a store whose files come from elsewhere: load, read, check,
// commit, repack, each followed by a new opening, on the simulated machine.
// Everything that the store says is compared with FileModel; memory and
// platform calls are held to what files of that size may cost. Ends the
// program where they differ.
#pragma once

#include <vector>

#include "tests/fuzz/FileModel.h"

namespace fuzz {

struct LifeOptions {
  bool keep = false;       // damage policy
  bool powerCuts = false;  // the power fails where the store would be closed
  bool deletes = false;    // the first commit deletes a blob
  bool traced = false;     // the trace is formatted and kept
};

// Of the first four bits.
LifeOptions OptionsOf(std::uint8_t byte);

void LiveThrough(const std::vector<Slot>& slots, const LifeOptions& options);

}  // namespace fuzz
