#include "tools/Layout.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "tools/Buffer.h"
#include "tools/Error.h"
#include "tools/Fd.h"
#include "tools/StagedFile.h"

namespace tool {
namespace {

constexpr size_t kDefaultSlots = 2;

// As the file has it, so that the store opens from any working directory and
// can be moved together with the packs that lie in it.
std::string RecordedDir(const std::string& store, const std::string& dir) {
  namespace stdfs = std::filesystem;
  const std::string absolute = stdfs::weakly_canonical(stdfs::absolute(dir)).string();
  if (absolute == stdfs::weakly_canonical(stdfs::absolute(store)).string())
    return layout::kOwnDirectory;
  if (absolute.find('\n') != std::string::npos)
    throw UsageError("a pack directory cannot have a newline in its name");
  return absolute.size() > 1 && absolute.ends_with('/') ? absolute.substr(0, absolute.size() - 1)
                                                        : absolute;
}

}  // namespace

Layout::Layout(std::string store, size_t slotCount, const std::vector<std::string>& packDirs)
    : store_(std::move(store)) {
  if (slotCount == 0) slotCount = std::max(kDefaultSlots, packDirs.size());
  if (slotCount < packDirs.size())
    throw UsageError(fmt::format("{} pack directories are more than {} slots can use",
                                 packDirs.size(), slotCount));
  for (size_t slot = 0; slot < slotCount; ++slot)
    packDirs_.push_back(packDirs.empty() ? layout::kOwnDirectory
                                         : RecordedDir(store_, packDirs[slot % packDirs.size()]));
}

std::string Layout::ConfPath(const std::string& store) {
  return fmt::format("{}/{}", store, layout::kFileName);
}

bool Layout::Exists(const std::string& store) {
  std::error_code code;
  return std::filesystem::exists(ConfPath(store), code);
}

Layout Layout::Read(const std::string& store) {
  if (!Exists(store))
    throw Fault(fmt::format("{} is not a store: it has no {}; `blobring init {}` makes one", store,
                            layout::kFileName, store));
  Buffer buffer;
  const Bytes bytes = ReadRegularFile(ConfPath(store), buffer).bytes;
  Layout read(store);
  read.packDirs_ =
      layout::Parse(ConfPath(store), {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  return read;
}

size_t Layout::CountJournals(const std::string& store) {
  size_t count = 0;
  for (size_t slot = 0; slot < layout::kMaxSlots; ++slot)
    if (std::filesystem::exists(fmt::format("{}/{}.jrn", store, slot))) count = slot + 1;
  return count;
}

void Layout::Write() const {
  std::string text =
      "# The slots of this store, in their order: slot k has its pack k.pak in the directory named "
      "and its\n"
      "# journal k.jrn here. Other slots, or another order, would hide what is stored.\n";
  text += fmt::format("{}\n", layout::kFirstLine);
  for (const std::string& dir : packDirs_) text += fmt::format("{}{}\n", layout::kSlotWord, dir);
  const Fd directory = OpenDirectory(store_);
  StagedFile file(directory.get(), layout::kFileName, ConfPath(store_));
  file.Write(AsBytes(text));
  file.Sync();
  file.Publish(Existing::kReplace);
}

std::string Layout::PackDir(size_t slot) const {
  return packDirs_.at(slot) == layout::kOwnDirectory ? store_ : packDirs_.at(slot);
}

std::string Layout::PackPath(size_t slot) const {
  return fmt::format("{}/{}.pak", PackDir(slot), slot);
}

std::string Layout::JournalPath(size_t slot) const {
  return fmt::format("{}/{}.jrn", store_, slot);
}

std::string Layout::Description() const {
  const std::set<std::string> dirs(packDirs_.begin(), packDirs_.end());
  return fmt::format("{} slot{}, packs in {}", slotCount(), slotCount() == 1 ? "" : "s",
                     fmt::join(dirs, " and "));
}

}  // namespace tool
