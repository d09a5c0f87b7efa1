// A tree of files into a store.
#pragma once

#include <string>

#include "tools/Error.h"
#include "tools/Open.h"

namespace tool {

struct ImportOptions {
  std::string directory;
  std::string manifest;  // see Output; empty for standard output
  bool force = false;    // replace a manifest that exists
  bool verbose = false;  // name what is left out
};

// Stores every regular file below the directory, then writes the manifest. A
// file that cannot be stored as it is (unreadable, too large) is named, left out
// of the manifest and makes the result kFault; the others go on. A manifest file
// appears only when the import has come to its end; other output has what was
// committed. Throws Fault or blobring::Error when the store itself fails; what
// was committed by then stays, and a second run does not store it again.
ExitStatus Import(const StoreOptions& at, const ImportOptions& options);

}  // namespace tool
