// The files to salvage, and which of their blobs a sound store would show.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "blobring/Store.h"
#include "tools/SalvageScan.h"

namespace tool {

using blobring::Hash;

// A pack or journal by its name: N.pak, N.jrn, either with .kept-M; N.pak.new.
struct SalvageName {
  uint64_t slot = 0;
  bool isPack = false;
  bool isNew = false;
  std::string kept;  // ".kept-M" or nothing

  static std::optional<SalvageName> Parse(const std::string& name);
};

struct SalvagedFile {
  std::string path;
  SalvageName name;
  std::optional<SalvageScan> scan;  // nothing when it cannot be opened
  std::string failure;              // why not
};

class SalvageSet {
 public:
  // Scans what lies in the directories and in those that the conf of the first
  // one names. Throws Fault when a directory cannot be read or holds no such file.
  SalvageSet(const std::string& directory, const std::vector<std::string>& packDirs);

  const std::vector<SalvagedFile>& files() const { return files_; }

  // Files that the conf names and that are not there.
  const std::vector<std::string>& missing() const { return missing_; }

  // The blobs of the newest generation: those of the pack with the highest
  // sequence, then what its journal stores and deletes. Only committed records
  // count, and a deletion only in a whole transaction: in doubt a blob is live.
  // Nothing when no pack's header is sound or that journal cannot be told.
  const std::optional<std::set<Hash>>& live() const { return live_; }
  const SalvagedFile* newestPack() const { return newest_; }

 private:
  void AddDirectory(const std::string& directory);
  void FindLive();
  const SalvagedFile* JournalOf(const SalvagedFile& pack) const;

  std::vector<SalvagedFile> files_;
  std::vector<std::string> missing_;
  size_t slotCount_ = 0;
  const SalvagedFile* newest_ = nullptr;
  std::optional<std::set<Hash>> live_;
};

}  // namespace tool
