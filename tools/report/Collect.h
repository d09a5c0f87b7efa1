// Gathers what a report says.
#pragma once

#include "tools/report/Document.h"
#include "tools/view/Layout.h"

namespace tool {

// Looks at a store, or at a single pack or journal, without changing it. `blobsToo`: compares every
// blob with its hash. Throws Fault, UsageError or Interrupted.
// Memory beside StoreView's: some 100 bytes for each transaction id and each dead blob.
Document Collect(const StoreOptions& at, bool blobsToo);

}  // namespace tool
