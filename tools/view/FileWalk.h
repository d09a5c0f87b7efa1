// What the tool takes from the reader of records (pack/format/RecordReader.h), which a load uses as
// well: without a lock and without changing anything.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "pack/format/RecordReader.h"
#include "tools/view/Layout.h"
#include "tools/view/SalvageFile.h"

namespace tool {

inline blobring::Hash HashOf(const format::Record& record) {
  return blobring::Hash(std::to_array(record.hash));
}

struct Damage {
  uint64_t offset = 0;
  std::string what;
};

struct Walked : format::ReadResult {
  // Where the records break off before the header's count does, and how many are missing.
  std::optional<Damage> damage;
  bool lastIsTorn = false;  // a power cut can have left this of the last commit (TornCommit.h)
};

using Digests = format::RecordReader::Digests;

struct WalkOptions {
  Digests digests = Digests::kCompare;
  // Each may be empty. Called in the order of the file, a transaction before its records, and only
  // for what is whole; but with kLast, which reads a file once, each record as it is read.
  std::function<void(const format::Transaction&)> transaction = {};
  std::function<void(const format::Record&)> record = {};
  std::function<void(uint64_t)> progress = {};  // where digesting has got to
};

// `status` is that of the file. Throws what the callbacks throw. Memory: about 1 MiB.
Walked Walk(SalvageFile& file, const FileStatus& status, const WalkOptions& options);

}  // namespace tool
