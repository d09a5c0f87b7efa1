#include "tools/Commands.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "tools/BatchWriter.h"
#include "tools/Console.h"
#include "tools/SlotFiles.h"
#include "tools/StagedFile.h"
#include "tools/Statistics.h"
#include "tools/Store.h"

namespace tool {
namespace {

// With what is missing above it. A power cut must not take the names of new
// directories, and of all that lies in them, so the directories that hold these
// are flushed.
void MakeDirectory(const std::string& path) {
  namespace stdfs = std::filesystem;
  std::error_code code;
  std::vector<stdfs::path> changed;
  for (stdfs::path at = stdfs::absolute(path); !stdfs::exists(at, code) && at.has_relative_path();
       at = at.parent_path())
    changed.push_back(at.parent_path());
  stdfs::create_directories(path, code);
  if (code) throw Fault(fmt::format("cannot make the directory {}: {}", path, code.message()));
  for (const stdfs::path& directory : changed)
    if (::fsync(OpenDirectory(directory.string()).get()) != 0) ThrowErrno("flush the directory " + directory.string());
}

Hash ParseHash(const std::string& text) {
  const std::optional<Hash> hash = Hash::Parse(text);
  if (!hash) throw UsageError(fmt::format("\"{}\" is no hash: wanted {} hexadecimal digits", text, kHashTextSize));
  return *hash;
}

size_t CountJournals(const std::string& store) {
  size_t count = 0;
  while (std::filesystem::exists(fmt::format("{}/{}.jrn", store, count))) ++count;
  return count;
}

// A store without our file: another program's, or one whose init was cut
// short. With the wrong slots its blobs would be hidden, so they must match.
void RequireSameSlotsAsFiles(const Layout& layout, OnDamage onDamage) {
  const size_t journalCount = CountJournals(layout.store());
  const SlotFiles files(layout);
  if (journalCount > layout.slotCount() || (files.HoldRecords() && journalCount != layout.slotCount()))
    throw UsageError(fmt::format("{} holds the journals of a store with {}: repeat init with --slots {}",
                                 layout.store(), Count(journalCount, "slot"), journalCount));
  if (files.HoldRecords() && onDamage == OnDamage::kErase) files.RequirePresent();
  if (files.HoldRecords() && onDamage == OnDamage::kKeep) files.RequireLoadable();
}

// Copies that the library made of files before it cut them: k.jrn.kept-N.
std::vector<std::string> FilesSetAside(const Layout& layout) {
  std::set<std::string> directories = {layout.store()};
  for (size_t slot = 0; slot < layout.slotCount(); ++slot) directories.insert(layout.PackDir(slot));
  std::vector<std::string> paths;
  for (const std::string& directory : directories)
    for (const auto& entry : std::filesystem::directory_iterator(directory))
      if (entry.path().filename().string().find(".kept-") != std::string::npos) paths.push_back(entry.path().string());
  return paths;
}

std::string AfterDamage(const Store& store) {
  if (store.onDamage() == OnDamage::kErase) return "the store was damaged, see above";
  return fmt::format(
      "the store is damaged; `blobring salvage {} NEW` copies all that can be read into a new store, `blobring export` "
      "restores files from what is shown; or restore a backup",
      store.layout().store());
}

// Anything but a regular file is written as it stands: a pipe or a device is
// not to be replaced by a file.
bool IsSpecialFile(const std::string& path) {
  struct stat status = {};
  return ::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

void WriteOutput(const std::string& path, Bytes blob) {
  if (path.empty() || path == "-") return WriteAll(STDOUT_FILENO, blob, "to standard output");
  if (IsSpecialFile(path)) {
    const Fd fd(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!fd.valid()) ThrowErrno("write " + path);
    return WriteAll(fd.get(), blob, path);
  }
  const SplitPath split(path);
  const Fd directory = OpenDirectory(split.directory);
  StagedFile file(directory.get(), split.name, path);
  file.Write(blob);
  file.Publish(StagedFile::Existing::kReplace);
}

}  // namespace

ExitStatus Init(const InitOptions& options) {
  const Layout wanted(options.store, options.slotCount, options.packDirs);
  if (Layout::Exists(options.store)) {
    const Layout present = Layout::Read(options.store);
    if ((options.slotCount != 0 || !options.packDirs.empty()) && !wanted.SameSlots(present))
      throw UsageError(
          fmt::format("{} is a store with {} already; that cannot be changed", options.store, present.Description()));
    Say(fmt::format("{} is a store with {} already; nothing was changed", options.store, present.Description()));
    return kSuccess;
  }
  RequireSameSlotsAsFiles(wanted, options.onDamage);
  MakeDirectory(options.store);
  for (size_t slot = 0; slot < wanted.slotCount(); ++slot) MakeDirectory(wanted.PackDir(slot));
  const Store store(StoreOptions{wanted, options.onDamage}, Store::Files::kMayBeMade);
  wanted.Write();
  Say(fmt::format("{} is a store with {}", options.store, wanted.Description()));
  return kSuccess;
}

ExitStatus Put(const StoreOptions& at, const std::vector<std::string>& files) {
  Store store(at);
  BatchWriter writer(store, Print);
  Buffer buffer;
  ExitStatus status = kSuccess;
  for (const std::string& file : files.empty() ? std::vector<std::string>{"-"} : files) {
    Bytes bytes;
    try {
      bytes = ReadStream(file, buffer);
    } catch (const Fault& fault) {
      Say(fault.what());
      status = kFault;
      continue;
    }
    writer.AddLine(writer.Add(bytes, file).hash.Text() + "\n");
  }
  writer.Commit();
  return status;
}

ExitStatus Get(const StoreOptions& at, const std::string& hash, const std::string& output) {
  const Hash key = ParseHash(hash);
  Store store(at);
  Buffer buffer;
  WriteOutput(output, store.Get(key, buffer));
  return kSuccess;
}

ExitStatus List(const StoreOptions& at, bool longForm) {
  const Store store(at);
  std::string text;
  for (const Hash& hash : store.List()) {
    text += hash.Text();
    if (longForm) text += fmt::format(" {}", store.SizeOf(hash).value_or(0));
    text += '\n';
  }
  Print(text);
  return kSuccess;
}

ExitStatus Remove(const StoreOptions& at, const std::vector<std::string>& hashes) {
  std::vector<Hash> keys(hashes.size());
  std::transform(hashes.begin(), hashes.end(), keys.begin(), ParseHash);
  Store store(at);
  store.Begin();
  uint64_t absentCount = 0;
  for (const Hash& key : keys) {
    if (store.SizeOf(key)) {
      store.Delete(key);
    } else {
      ++absentCount;
      Say(fmt::format("{} has no blob {}", at.layout.store(), key.Text()));
    }
  }
  store.Commit();
  Say(fmt::format("{} deleted; `blobring repack` frees the space", Count(keys.size() - absentCount, "blob")));
  return absentCount == 0 ? kSuccess : kFault;
}

ExitStatus Check(const StoreOptions& at) {
  const Store store(at);
  const Statistics statistics = Statistics::Of(store);
  Say(fmt::format("checking {}, {}", Count(statistics.blobCount, "blob"), HumanSize(statistics.liveBytes)));
  const std::vector<std::string> faults = store.Check();
  for (const std::string& fault : faults) Say(fault);
  for (const std::string& path : FilesSetAside(at.layout))
    Say(
        fmt::format("{} was set aside because it was damaged; what is lost may be in it, and `blobring salvage {} NEW` "
                    "reads it",
                    path, at.layout.store()));
  const bool sound = faults.empty() && !store.damaged();
  Say(sound ? "every blob is sound" : AfterDamage(store));
  return sound ? kSuccess : kFault;
}

ExitStatus Repack(const StoreOptions& at, bool force) {
  Store store(at);
  const Statistics before = Statistics::Of(store);
  Say(fmt::format("repacking {}, {}", Count(before.blobCount, "blob"), HumanSize(before.liveBytes)));
  store.Repack(force ? Store::Force::kDespiteDamage : Store::Force::kNo);
  const Statistics after = Statistics::Of(store);
  Say(fmt::format("slot {} is current (sequence {}); {} of dead records were left behind", after.currentSlot,
                  after.sequence, HumanSize(before.deadBytes)));
  return kSuccess;
}

}  // namespace tool
