// How full a store is.
#pragma once

#include <cstdint>

#include "tools/Error.h"
#include "tools/SlotFiles.h"
#include "tools/Store.h"

namespace tool {

struct Statistics {
  uint64_t blobCount = 0;
  uint64_t liveBytes = 0;  // the blobs' contents
  uint64_t deadBytes = 0;  // what the current pack and journal have in use beyond the blobs' records
  int currentSlot = 0;
  int32_t sequence = 0;  // of the current pack

  static Statistics Of(const Store& store);
};

// Prints the store's figures and a line for each of its files.
ExitStatus PrintStatistics(const StoreOptions& at);

}  // namespace tool
