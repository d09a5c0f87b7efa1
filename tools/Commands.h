// What the subcommands do, apart from whole trees (Import.h, Export.h). Each
// throws Fault or UsageError; results go to standard output, the rest to
// standard error.
#pragma once

#include <string>
#include <vector>

#include "tools/Error.h"
#include "tools/Store.h"

namespace tool {

struct InitOptions {
  std::string store;
  size_t slotCount = 0;               // 0: not said
  std::vector<std::string> packDirs;  // of the slots in turn
  OnDamage onDamage = OnDamage::kKeep;
};

// Makes a store, with its directories, or takes over one that another program
// made with the same slots. A store that is there already stays as it is.
ExitStatus Init(const InitOptions& options);

// Stores files, "-" or none for standard input, and prints the hash of each
// once it is committed. Files that cannot be read are named; the others go on.
ExitStatus Put(const StoreOptions& at, const std::vector<std::string>& files);

// Writes a blob to a file, replacing it in one step, or to standard output
// when `output` is empty or "-".
ExitStatus Get(const StoreOptions& at, const std::string& hash, const std::string& output);

// Prints all hashes in ascending order, with sizes when `longForm`.
ExitStatus List(const StoreOptions& at, bool longForm);

// Deletes blobs in one transaction. Hashes that the store does not have are
// named; the others go.
ExitStatus Remove(const StoreOptions& at, const std::vector<std::string>& hashes);

ExitStatus Check(const StoreOptions& at);

// `force`: even when loading found damage, so that what can be read goes on as
// a sound store and what cannot be read is given up.
ExitStatus Repack(const StoreOptions& at, bool force);

}  // namespace tool
