// Blobs out of files that a store can no longer be opened on.
#pragma once

#include <string>
#include <vector>

#include "tools/Error.h"

namespace tool {

struct SalvageOptions {
  std::string directory;
  std::vector<std::string> packDirs;  // beside those that the directory's blobring.conf names
  std::string store;                  // the new one
  bool liveOnly = false;
};

// Reads every pack and journal of the directories, those that were kept aside
// included, without a lock and without changing them, and stores each blob whose
// bytes still match its hash in a new store, which is checked at the end. The
// report goes to standard output. kFault when something is damaged or beyond
// recovery. Throws UsageError when the new store's directory is there and not
// empty, Fault when the new store cannot take the blobs; what was committed by
// then stays in it.
ExitStatus Salvage(const SalvageOptions& options);

}  // namespace tool
