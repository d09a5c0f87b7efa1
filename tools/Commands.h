// What the subcommands do, apart from whole trees (Import.h, Export.h). Each
// throws Fault, UsageError or blobring::Error. Results go to standard output,
// the rest to standard error, both after the store is closed.
#pragma once

#include <string>
#include <vector>

#include "tools/Error.h"
#include "tools/Open.h"

namespace tool {

// Makes a store, with its directories, or takes over one that another program
// made with the same slots. A store that is there already stays as it is.
ExitStatus Init(const StoreOptions& options);

// Stores files, "-" or none for standard input, and prints the hash of each.
// Files that cannot be read are named; the others go on.
ExitStatus Put(const StoreOptions& at, const std::vector<std::string>& files);

// Writes blobs, one after the other, to standard output or a file (see Output).
// Hashes may come from standard input ("-"). Blobs that cannot be read are
// named; the others go on, unless there is only one.
ExitStatus Get(const StoreOptions& at, const std::vector<std::string>& hashes,
               const std::string& output);

// Prints all hashes in ascending order, with sizes when `longForm`.
ExitStatus List(const StoreOptions& at, bool longForm);

// Deletes blobs in one transaction. Hashes may come from standard input ("-").
// Blobs that the store does not have are named; the others go.
ExitStatus Remove(const StoreOptions& at, const std::vector<std::string>& hashes);

// Prints how full the store is, and a line for each of its files.
ExitStatus Stat(const StoreOptions& at);

// Reads every blob.
ExitStatus Check(const StoreOptions& at);

// `force`: even when loading found damage. What can be read goes on as a sound
// store; the rest is given up.
ExitStatus Repack(const StoreOptions& at, bool force);

}  // namespace tool
