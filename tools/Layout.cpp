#include "tools/Layout.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

#include "tools/Error.h"
#include "tools/Fd.h"
#include "tools/StagedFile.h"

namespace tool {
namespace {

constexpr const char* kConfName = "blobring.conf";
constexpr const char* kFirstLine = "blobring 1";
constexpr const char* kSlotWord = "slot ";
constexpr const char* kOwnDirectory = ".";
constexpr size_t kDefaultSlots = 2;

// As the file has it, so that the store opens from any working directory and
// can be moved together with the packs that lie in it.
std::string RecordedDir(const std::string& store, const std::string& dir) {
  namespace stdfs = std::filesystem;
  const std::string absolute = stdfs::weakly_canonical(stdfs::absolute(dir)).string();
  if (absolute == stdfs::weakly_canonical(stdfs::absolute(store)).string()) return kOwnDirectory;
  if (absolute.find('\n') != std::string::npos) throw UsageError("a pack directory cannot have a newline in its name");
  return absolute.size() > 1 && absolute.ends_with('/') ? absolute.substr(0, absolute.size() - 1) : absolute;
}

}  // namespace

Layout::Layout(std::string store, size_t slotCount, const std::vector<std::string>& packDirs)
    : store_(std::move(store)) {
  if (slotCount == 0) slotCount = std::max(kDefaultSlots, packDirs.size());
  if (slotCount < packDirs.size())
    throw UsageError(fmt::format("{} pack directories are more than {} slots can use", packDirs.size(), slotCount));
  if (slotCount > kMaxSlots) throw UsageError(fmt::format("a store has at most {} slots", kMaxSlots));
  for (size_t slot = 0; slot < slotCount; ++slot)
    packDirs_.push_back(packDirs.empty() ? kOwnDirectory : RecordedDir(store_, packDirs[slot % packDirs.size()]));
}

std::string Layout::ConfPath(const std::string& store) {
  return fmt::format("{}/{}", store, kConfName);
}

bool Layout::Exists(const std::string& store) {
  std::error_code code;
  return std::filesystem::exists(ConfPath(store), code);
}

Layout Layout::Read(const std::string& store) {
  if (!Exists(store))
    throw Fault(fmt::format("{} is not a store: it has no {}; `blobring init {}` makes one", store, kConfName, store));
  if (!std::filesystem::is_regular_file(std::filesystem::symlink_status(ConfPath(store))))
    throw Fault(fmt::format("{} is not a regular file", ConfPath(store)));
  std::ifstream file(ConfPath(store));
  Layout layout(store);
  std::string line;
  bool first = true;
  for (size_t number = 1; std::getline(file, line); ++number) {
    if (line.empty() || line[0] == '#') continue;
    if (!std::exchange(first, false)) {
      layout.ReadLine(line, number);
    } else if (line != kFirstLine) {
      throw Fault(fmt::format("{} line {}: wanted \"{}\", found \"{}\"", ConfPath(store), number, kFirstLine, line));
    }
  }
  if (file.bad() || !file.eof()) throw Fault(fmt::format("cannot read {}", ConfPath(store)));
  if (layout.packDirs_.empty()) throw Fault(fmt::format("{} names no slot", ConfPath(store)));
  return layout;
}

size_t Layout::CountJournals(const std::string& store) {
  size_t count = 0;
  for (size_t slot = 0; slot < kMaxSlots; ++slot)
    if (std::filesystem::exists(fmt::format("{}/{}.jrn", store, slot))) count = slot + 1;
  return count;
}

void Layout::ReadLine(const std::string& line, size_t number) {
  const std::string dir = line.starts_with(kSlotWord) ? line.substr(std::string(kSlotWord).size()) : "";
  if (dir != kOwnDirectory && !dir.starts_with('/'))
    throw Fault(fmt::format("{} line {}: wanted \"slot .\" or \"slot \" and an absolute directory, found \"{}\"",
                            ConfPath(store_), number, line));
  packDirs_.push_back(dir);
}

void Layout::Write() const {
  std::string text =
      "# The slots of this store, in their order: slot k has its pack k.pak in the directory named and its\n"
      "# journal k.jrn here. Other slots, or another order, would hide what is stored.\n";
  text += fmt::format("{}\n", kFirstLine);
  for (const std::string& dir : packDirs_) text += fmt::format("{}{}\n", kSlotWord, dir);
  const Fd directory = OpenDirectory(store_);
  StagedFile file(directory.get(), kConfName, ConfPath(store_));
  file.Write(AsBytes(text));
  file.Sync();
  file.Publish(Existing::kReplace);
}

std::string Layout::PackDir(size_t slot) const {
  return packDirs_.at(slot) == kOwnDirectory ? store_ : packDirs_.at(slot);
}

std::string Layout::PackPath(size_t slot) const {
  return fmt::format("{}/{}.pak", PackDir(slot), slot);
}

std::string Layout::JournalPath(size_t slot) const {
  return fmt::format("{}/{}.jrn", store_, slot);
}

std::string Layout::Description() const {
  const std::set<std::string> dirs(packDirs_.begin(), packDirs_.end());
  return fmt::format("{} slot{}, packs in {}", slotCount(), slotCount() == 1 ? "" : "s", fmt::join(dirs, " and "));
}

}  // namespace tool
