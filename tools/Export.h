// A tree of files out of a store.
#pragma once

#include <string>

#include "tools/Error.h"
#include "tools/Open.h"

namespace tool {

struct ExportOptions {
  std::string manifest;  // "-" for standard input
  std::string directory;
  bool force = false;  // replace files that exist
};

// Restores what the manifest lists below the directory, every blob checked
// against its hash as it is read. A file that cannot be restored is named and
// makes the result kFault; the others go on. Throws UsageError, with nothing
// written, when any name in the manifest would lead out of the directory.
ExitStatus Export(const StoreOptions& at, const ExportOptions& options);

}  // namespace tool
