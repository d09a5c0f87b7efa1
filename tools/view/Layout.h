// The slots of a store as the tool writes them down and shows them, and what their files say about
// themselves. Nothing here takes a lock.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "pack/format/Conf.h"
#include "pack/format/FileNames.h"
#include "pack/format/Generation.h"
#include "pack/format/Headers.h"

namespace tool {

using format::FileStatus;

// What the header of a file shows; kMissing if there is none. Throws Fault if it cannot be read.
FileStatus ReadStatus(const std::string& path);

struct SlotFile {
  std::string path;
  FileStatus status;
};

class Layout {
 public:
  // As asked for. Without slotCount (0) there are two slots, or as many as there are packDirs if
  // that is more; packDirs are used in turn, the store's own directory without any. Throws
  // UsageError.
  Layout(std::string store, size_t slotCount, const std::vector<std::string>& packDirs);

  // As init wrote them. Throws Fault when that is missing or not understood.
  static Layout Read(const std::string& store);
  static bool Exists(const std::string& store);

  // One more than the highest k for which there is a k.jrn.
  static size_t CountJournals(const std::string& store);

  // Writes the file so that it survives a power cut. Throws Fault.
  void Write() const;

  const std::string& store() const { return store_; }
  size_t slotCount() const { return packDirs_.size(); }
  std::string PackDir(size_t slot) const;
  std::string PackPath(size_t slot) const;
  std::string JournalPath(size_t slot) const;
  static std::string ConfPath(const std::string& store);

  // The packs and journals of the slots in turn, each pack before its journal. Throws Fault when a
  // file is there and cannot be read.
  std::vector<SlotFile> ReadFiles() const;

  // The same slots with packs in the same places.
  bool SameSlots(const Layout& other) const { return packDirs_ == other.packDirs_; }

  // "2 slots, packs in . and /mnt/a".
  std::string Description() const;

 private:
  explicit Layout(std::string store) : store_(std::move(store)) {}

  std::string store_;
  std::vector<std::string> packDirs_;  // absolute, or "." for the store's own
};

// Files with the sequence of another slot, by their index, and what to say of each: two names were
// swapped, or the slots are others.
using SwappedFiles = std::vector<std::pair<size_t, std::string>>;
SwappedFiles FindSwapped(const std::vector<SlotFile>& files);

// Of files in which each pack comes before its journal.
format::SlotHeaders HeadersOf(const std::vector<SlotFile>& files, size_t slot);

// Whether the pack of a slot is damaged or lost, where the newest of the others is of this
// sequence.
bool IsLost(const std::vector<SlotFile>& files, size_t slot, int32_t newest);

// The packs that are there and lost for all that the headers tell, by their index.
std::vector<size_t> LostPacks(const std::vector<SlotFile>& files);

// What loads and repacks have left in the directories of these files.
std::vector<std::string> LeftoversBeside(const std::vector<SlotFile>& files);

// What a command line says about a store.
struct StoreOptions {
  std::string directory;
  size_t slotCount = 0;                    // 0: not said
  std::vector<std::string> packDirs = {};  // of the slots in turn
  bool eraseDamaged = false;
};

enum class Access {
  kLook,           // changes no file; needs no blobring.conf
  kChange,         // refused when the store is damaged, unless that is to be erased
  kChangeDamaged,  // never refused for damage
  kCreate,         // makes files that are missing
};

// The slots: as blobring.conf has them; without one, for kLook, as the options and the files say.
// Throws Fault, or UsageError where the two disagree.
Layout LayoutOf(const StoreOptions& options, Access access);

}  // namespace tool
