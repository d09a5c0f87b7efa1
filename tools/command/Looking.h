// The commands that look at a store or a file and change nothing. All return kFault when what they
// look at is damaged, whatever else they did. Results go to standard output, as text or, with
// --json, as the objects of docs/json.md.
#pragma once

#include <string>
#include <vector>

#include "tools/base/Error.h"
#include "tools/work/Open.h"

namespace tool {

struct ListOptions {
  StoreOptions at;
  std::vector<std::string> hashes;  // beginnings of hashes; all blobs without any
  bool longForm = false;
  std::string sort = "hash";  // or "size", "transaction"
};
// Prints hashes. Throws NothingFound if no blob begins with one that is asked for.
ExitStatus List(const ListOptions& options);

struct GetOptions {
  StoreOptions at;
  std::vector<std::string> hashes;
  std::string output;  // see Output; empty for standard output
  bool batch = false;  // answer the hashes of standard input, one a line, as they come
};
// Writes blobs one after the other, each checked against its hash. Those that are damaged or absent
// are named; the others go on. Returns kNothing if some are absent and all others sound.
ExitStatus Get(const GetOptions& options);

struct LogOptions {
  StoreOptions at;
  bool stat = false;
  bool patch = false;
  std::string since;  // transaction id: only larger ones
};
// Prints the transactions of the journal, newest first.
ExitStatus Log(const LogOptions& options);

struct DiffOptions {
  std::string a;
  std::string b;  // each a store, a pack or journal, or a manifest
};
// Prints what only one of the two has. Returns kFault if there is anything.
ExitStatus Diff(const DiffOptions& options);

// Prints how full the store is, and a line for each of its files.
ExitStatus Stat(const StoreOptions& options);

struct CheckOptions {
  StoreOptions at;
  bool structure = false;  // digests of transactions alone
  bool quick = false;      // headers alone
};
ExitStatus Check(const CheckOptions& options);

struct InspectOptions {
  std::vector<std::string> paths;  // packs and journals, or stores for all of their files
  std::string transaction;         // an id, or the offset of a start record; empty for all
  bool records = false;
  bool noDigest = false;
};
// Prints what lies in files, record by record if asked to.
ExitStatus Inspect(const InspectOptions& options);

}  // namespace tool
