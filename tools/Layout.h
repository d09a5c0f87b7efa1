// Which slots a store has. The library is told anew each time and cannot
// notice a wrong answer, so `blobring init` writes it down beside the journals.
#pragma once

#include <string>
#include <vector>

namespace tool {

constexpr size_t kMaxSlots = 1000;

// "blobring.conf" in the store's directory: a line "blobring 1", then for each
// slot in its order a line "slot DIR" with the directory of its pack, "." for
// the store's own. Lines that begin with '#' and empty lines say nothing.
class Layout {
 public:
  // What init was asked for. Without slotCount (0) there are two slots, or as
  // many as there are packDirs if that is more; packDirs are used in turn, the
  // store's own directory stands in when there are none. Throws UsageError.
  Layout(std::string store, size_t slotCount, const std::vector<std::string>& packDirs);

  // Reads what init wrote. Throws Fault when that is missing or not understood.
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

  // The same slots with packs in the same places.
  bool SameSlots(const Layout& other) const { return packDirs_ == other.packDirs_; }

  // "2 slots, packs in . and /mnt/a".
  std::string Description() const;

 private:
  explicit Layout(std::string store) : store_(std::move(store)) {}
  void ReadLine(const std::string& line, size_t number);

  std::string store_;
  std::vector<std::string> packDirs_;  // absolute, or "." for the store's own
};

}  // namespace tool
