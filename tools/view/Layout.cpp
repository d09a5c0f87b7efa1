#include "tools/view/Layout.h"

#include <fcntl.h>
#include <fmt/ranges.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <set>

#include "tools/base/Console.h"
#include "tools/base/Error.h"
#include "tools/base/Files.h"
#include "tools/base/StagedFile.h"

namespace tool {
namespace {

namespace stdfs = std::filesystem;

// As the file has it, so that the store opens from any working directory and can be moved together
// with the packs that lie in it.
std::string RecordedDir(const std::string& store, const std::string& dir) {
  const auto canonical = [](const std::string& path) {
    std::string text = stdfs::weakly_canonical(stdfs::absolute(path));
    if (text.size() > 1 && text.ends_with('/')) text.pop_back();
    return text;
  };
  std::string absolute = canonical(dir);
  if (absolute == canonical(store)) return format::Conf::kOwnDirectory;
  if (absolute.find('\n') != std::string::npos)
    throw UsageError("a pack directory cannot have a newline in its name");
  return absolute;
}

}  // namespace

FileStatus ReadStatus(const std::string& path) {
  const Fd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!fd.valid() && errno == ENOENT) return {};
  struct stat status = {};
  std::array<unsigned char, format::kFileHeaderSize> bytes = {};
  if (!fd.valid() || ::pread(fd.get(), bytes.data(), bytes.size(), 0) < 0 ||
      ::fstat(fd.get(), &status) != 0)
    ThrowErrno("read " + path);
  return FileStatus::Judge(bytes.data(), static_cast<uint64_t>(status.st_size));
}

Layout::Layout(std::string store, size_t slotCount, const std::vector<std::string>& packDirs)
    : store_(std::move(store)) {
  if (slotCount == 0) slotCount = std::max<size_t>(format::kDefaultSlots, packDirs.size());
  if (slotCount < packDirs.size())
    throw UsageError("{} pack directories are more than {} slots can use", packDirs.size(),
                     slotCount);
  for (size_t slot = 0; slot < slotCount; ++slot)
    packDirs_.push_back(packDirs.empty() ? format::Conf::kOwnDirectory
                                         : RecordedDir(store_, packDirs[slot % packDirs.size()]));
}

std::string Layout::ConfPath(const std::string& store) {
  return fmt::format("{}/{}", store, format::Conf::kFileName);
}

bool Layout::Exists(const std::string& store) {
  std::error_code code;
  return stdfs::exists(ConfPath(store), code);
}

Layout Layout::Read(const std::string& store) {
  const size_t journalCount = Exists(store) ? 0 : CountJournals(store);
  if (journalCount != 0)
    throw Fault(
        "{} was made without the tool and has no {}; `blobring init --slots {} {}` adopts it",
        store, format::Conf::kFileName, journalCount, store);
  if (!Exists(store))
    throw Fault("{} is not a store: it has no {}; `blobring init {}` makes one", store,
                format::Conf::kFileName, store);
  Buffer buffer;
  Layout read(store);
  auto [packDirs, error] =
      format::Conf::Parse(ConfPath(store), ReadRegularFile(ConfPath(store), buffer).bytes);
  if (!error.empty()) throw Fault("{}", error);
  read.packDirs_ = std::move(packDirs);
  return read;
}

size_t Layout::CountJournals(const std::string& store) {
  size_t count = 0;
  for (size_t slot = 0; slot < format::kMaxSlots; ++slot)
    if (stdfs::exists(format::JournalPath(store, slot))) count = slot + 1;
  return count;
}

void Layout::Write() const {
  const Fd directory = OpenDirectory(store_);
  StagedFile file(directory.get(), format::Conf::kFileName, ConfPath(store_));
  file.Write(format::Conf{packDirs_}.Text());
  file.Sync();
  file.Publish(Existing::kReplace);
}

std::string Layout::PackDir(size_t slot) const {
  return packDirs_.at(slot) == format::Conf::kOwnDirectory ? store_ : packDirs_.at(slot);
}

std::string Layout::PackPath(size_t slot) const {
  return format::PackPath(PackDir(slot), slot);
}

std::string Layout::JournalPath(size_t slot) const {
  return format::JournalPath(store_, slot);
}

std::vector<SlotFile> Layout::ReadFiles() const {
  std::vector<SlotFile> files;
  for (size_t slot = 0; slot < slotCount(); ++slot)
    for (const std::string& path : {PackPath(slot), JournalPath(slot)})
      files.push_back({path, ReadStatus(path)});
  return files;
}

std::string Layout::Description() const {
  const std::set<std::string> dirs(packDirs_.begin(), packDirs_.end());
  return fmt::format("{}, packs in {}", Count(slotCount(), "slot"), fmt::join(dirs, " and "));
}

Layout LayoutOf(const StoreOptions& options, Access access) {
  const std::string& store = options.directory;
  const bool isSaid = options.slotCount != 0 || !options.packDirs.empty();
  if (access == Access::kCreate) return Layout(store, options.slotCount, options.packDirs);
  if (access != Access::kLook || (!isSaid && Layout::Exists(store))) return Layout::Read(store);
  const size_t slotCount =
      options.slotCount != 0 ? options.slotCount : Layout::CountJournals(store);
  if (slotCount == 0) return Layout::Read(store);  // which says that there is no store
  Layout said(store, slotCount, options.packDirs);
  if (Layout::Exists(store) && !said.SameSlots(Layout::Read(store)))
    throw UsageError("{} has {}", store, Layout::Read(store).Description());
  return said;
}

SwappedFiles FindSwapped(const std::vector<SlotFile>& files) {
  SwappedFiles found;
  for (size_t i = 0; i < files.size(); ++i) {
    const int32_t sequence = files[i].status.header.sequence;
    if (files[i].status.state != FileStatus::State::kSound || sequence <= 0) continue;
    const uint32_t slot = format::SlotOf(sequence, static_cast<uint32_t>(files.size() / 2));
    if (slot != i / 2)
      found.emplace_back(i,
                         fmt::format("{} is of generation {}, which belongs to slot {}: it was "
                                     "swapped with {}, or the store has other slots",
                                     files[i].path, sequence, slot, files[2 * slot + i % 2].path));
  }
  return found;
}

format::SlotHeaders HeadersOf(const std::vector<SlotFile>& files, size_t slot) {
  const FileStatus& pack = files[2 * slot].status;
  const FileStatus& journal = files[2 * slot + 1].status;
  return {pack.header, journal.header, pack.state == FileStatus::State::kDamaged,
          journal.state == FileStatus::State::kDamaged};
}

bool IsLost(const std::vector<SlotFile>& files, size_t slot, int32_t newest) {
  const format::SlotHeaders headers = HeadersOf(files, slot);
  return headers.packIsDamaged || format::IsPackLost(headers, static_cast<uint32_t>(slot), newest,
                                                     static_cast<uint32_t>(files.size() / 2));
}

std::vector<size_t> LostPacks(const std::vector<SlotFile>& files) {
  int32_t newest = format::kSequenceReset;
  for (size_t i = 0; i < files.size(); i += 2)
    if (files[i].status.IsLoadable()) newest = std::max(newest, files[i].status.header.sequence);
  std::vector<size_t> lost;
  for (size_t i = 0; i < files.size(); i += 2)
    if (files[i].status.state != FileStatus::State::kMissing && IsLost(files, i / 2, newest))
      lost.push_back(i);
  return lost;
}

std::vector<std::string> LeftoversBeside(const std::vector<SlotFile>& files) {
  std::set<std::string> directories;
  for (const SlotFile& file : files)
    directories.insert(stdfs::path(file.path).parent_path().string());
  std::vector<std::string> paths;
  std::error_code ignored;
  for (const std::string& directory : directories)
    for (const auto& entry : stdfs::directory_iterator(directory, ignored))
      if (const auto name = format::FileName::Parse(entry.path().filename().string());
          name && !name->IsOfSlot())
        paths.push_back(entry.path().string());
  std::sort(paths.begin(), paths.end());
  return paths;
}

}  // namespace tool
