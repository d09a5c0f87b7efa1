// What the subcommands do. Each throws Fault, UsageError or blobring::Error. Results go to standard
// output, the rest to standard error, both after the store is closed.
#pragma once

#include <string>
#include <vector>

#include "tools/base/Error.h"
#include "tools/work/NameFilter.h"
#include "tools/work/Open.h"

namespace tool {

// Makes a store, with its directories, or takes over one that another program made with the same
// slots. A store that is there already stays as it is.
ExitStatus Init(const StoreOptions& options);

// Stores files, "-" or none for standard input, and prints the hash of each. Files that cannot be
// read are named; the others go on.
struct PutOptions {
  StoreOptions at;
  std::vector<std::string> files;
  bool dryRun = false;  // print the hashes, store nothing
};
ExitStatus Put(const PutOptions& options);

struct RemoveOptions {
  StoreOptions at;
  std::vector<std::string> hashes;  // "-": those of standard input
  std::vector<std::string> notIn;   // manifests: delete what none of them lists
  bool dryRun = false;              // print the hashes, delete nothing
};
// Deletes blobs in one transaction. Those that the store does not have are named; the others go.
// Returns kNothing if any is not there, or none is to go. Throws UsageError, with nothing changed,
// for a manifest that lists nothing, or nothing that the store has: it is not the one that was
// meant.
ExitStatus Remove(const RemoveOptions& options);

struct ImportOptions {
  StoreOptions at;
  std::string directory;
  std::string manifest;  // see Output; empty for standard output
  bool force = false;    // replace a manifest that exists
  bool verbose = false;  // name what is left out
  bool dryRun = false;   // store nothing, write no manifest
  NameFilter filter;
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
  bool force = false;   // replace files that exist
  bool dryRun = false;  // print the names, write nothing
  NameFilter filter;
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
  double ifDead = 0;  // per cent; less dead space than that: kNothing
  bool dryRun = false;
};
ExitStatus Repack(const RepackOptions& options);

struct SalvageOptions {
  std::string directory;
  std::vector<std::string> packDirs;  // beside those that the directory's layout file names
  std::string store;                  // the new store
  bool liveOnly = false;
  bool dryRun = false;  // report only
};

// Reads the packs and journals of the directories, without locking or changing them, and puts every
// blob that matches its hash into a new store, which is then checked. Prints a report to standard
// output. Returns kFault if anything is damaged or was not copied. Throws UsageError if the new
// store's directory is not empty or lies in one of the others; Fault if nothing was found, or the
// new store cannot take the blobs: what was committed by then stays in it.
ExitStatus Salvage(const SalvageOptions& options);

struct CopyOptions {
  std::string from;  // a store, or a pack or journal
  StoreOptions to;
  std::vector<std::string> hashes;  // all blobs without any
  bool dryRun = false;
};
// Copies blobs that the other store does not have. Its journal is repacked when it is full. A blob
// that cannot be read or is not there is named; the others go on. Returns kFault for damage,
// kNothing if one is not there.
ExitStatus Copy(const CopyOptions& options);

struct VerifyOptions {
  StoreOptions at;
  std::vector<std::string> manifests;  // and checksum files, see ReadChecksums
  std::string write;                   // a checksum file of all that was verified, if it is sound
  bool force = false;
  bool verbose = false;
};
// Whether the store has what manifests list, each blob compared with its hash. Returns kFault for
// damage, kNothing if something is missing.
ExitStatus Verify(const VerifyOptions& options);

struct CleanOptions {
  StoreOptions at;
  bool remove = false;
  bool force = false;   // also files that were set aside and hold what the store does not have
  bool dryRun = false;  // only list, whatever `remove` is
};
// Lists, or removes, what killed commands left and what was set aside. Returns kNothing if there is
// nothing, kFault if a file that was to go stays. Throws Fault, with nothing removed, if the store
// is damaged: what was set aside may be needed.
ExitStatus Clean(const CleanOptions& options);

}  // namespace tool
