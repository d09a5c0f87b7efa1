// Copies blobs out of files on which a store can no longer be opened.
#pragma once

#include <string>
#include <vector>

#include "tools/Error.h"

namespace tool {

struct SalvageOptions {
  std::string directory;
  std::vector<std::string> packDirs;  // beside those that the directory's layout file names
  std::string store;                  // the new store
  bool liveOnly = false;
};

// Reads the packs and journals of the directories, without locking or changing
// them, and puts every blob that matches its hash into a new store, which is
// then checked. Prints a report to standard output. Returns kFault if anything
// is damaged or was not copied. Throws UsageError if the new store's directory
// is not empty or lies in one of the others; Fault if nothing was found, or the
// new store cannot take the blobs: what was committed by then stays in it.
ExitStatus Salvage(const SalvageOptions& options);

}  // namespace tool
