// What the subcommands do. Each throws Fault, UsageError or blobring::Error. Results go to standard
// output, the rest to standard error, both after the store is closed.
#pragma once

#include <string>
#include <vector>

#include "tools/Error.h"
#include "tools/Open.h"

namespace tool {

// Makes a store, with its directories, or takes over one that another program made with the same
// slots. A store that is there already stays as it is.
ExitStatus Init(const StoreOptions& options);

// Stores files, "-" or none for standard input, and prints the hash of each. Files that cannot be
// read are named; the others go on.
struct PutOptions {
  StoreOptions at;
  std::vector<std::string> files;
};
ExitStatus Put(const PutOptions& options);

// Deletes blobs in one transaction. Hashes may come from standard input ("-"). Blobs that the store
// does not have are named; the others go.
struct RemoveOptions {
  StoreOptions at;
  std::vector<std::string> hashes;
};
ExitStatus Remove(const RemoveOptions& options);

struct ImportOptions {
  StoreOptions at;
  std::string directory;
  std::string manifest;  // see Output; empty for standard output
  bool force = false;    // replace a manifest that exists
  bool verbose = false;  // name what is left out
};

// Stores every regular file below the directory, then writes the manifest. A file that cannot be
// stored as it is (unreadable, too large) is named, left out of the manifest and makes the result
// kFault; the others go on. A manifest file appears only when the import has come to its end; other
// output has what was committed. Throws Fault or blobring::Error when the store itself fails; what
// was committed by then stays, and a second run does not store it again.
ExitStatus Import(const ImportOptions& options);

struct ExportOptions {
  StoreOptions at;
  std::string manifest;  // "-" for standard input
  std::string directory;
  bool force = false;  // replace files that exist
};

// Restores what the manifest lists below the directory, every blob checked against its hash as it
// is read. A file that cannot be restored is named and makes the result kFault; the others go on.
// Throws UsageError, with nothing written, when any name in the manifest would lead out of the
// directory.
ExitStatus Export(const ExportOptions& options);

// `force`: even when loading found damage. What can be read goes on as a sound store; the rest is
// given up.
struct RepackOptions {
  StoreOptions at;
  bool force = false;
};
ExitStatus Repack(const RepackOptions& options);

struct SalvageOptions {
  std::string directory;
  std::vector<std::string> packDirs;  // beside those that the directory's layout file names
  std::string store;                  // the new store
  bool liveOnly = false;
};

// Reads the packs and journals of the directories, without locking or changing them, and puts every
// blob that matches its hash into a new store, which is then checked. Prints a report to standard
// output. Returns kFault if anything is damaged or was not copied. Throws UsageError if the new
// store's directory is not empty or lies in one of the others; Fault if nothing was found, or the
// new store cannot take the blobs: what was committed by then stays in it.
ExitStatus Salvage(const SalvageOptions& options);

}  // namespace tool
