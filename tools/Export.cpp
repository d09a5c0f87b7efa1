// A tree of files out of a store.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "tools/Commands.h"
#include "tools/Manifest.h"
#include "tools/StagedFile.h"
#include "tools/look/StoreView.h"

namespace tool {
namespace {

namespace stdfs = std::filesystem;

// Whether a name stays below the directory it is taken from: relative, no "..", not the directory
// itself. "./" and "//" mean nothing, as in open(2).
bool IsSafe(const stdfs::path& name) {
  for (const stdfs::path& part : name)
    if (part == "..") return false;
  return name.is_relative() && name.has_filename() && name.filename() != ".";
}

// Files written below one directory and nowhere else.
class TargetTree {
 public:
  // Creates the directory if it does not exist. Throws Fault.
  explicit TargetTree(const std::string& directory) : root_(directory) {
    std::error_code ignored;  // what is wrong, opening it says as well
    stdfs::create_directories(directory, ignored);
    rootFd_ = OpenDirectory(directory);
  }

  // Writes a file whole or not at all, with the directories that its name needs. REQUIRES: the name
  // is safe. Throws Fault.
  void Write(const stdfs::path& name, std::string_view data, Existing existing) {
    const stdfs::path normal = name.lexically_normal();
    StagedFile file(OpenParent(normal.parent_path()), normal.filename(),
                    fmt::format("{}/{}", root_, normal.string()));
    file.Write(data);
    file.Publish(existing);
  }

  // Makes everything written survive a power cut. Throws Fault.
  void Sync() const {
    if (::syncfs(rootFd_.get()) != 0) ThrowErrno("flush " + root_);
  }

 private:
  // The directory at `name` below the root, made if need be, open until the next call; files come
  // sorted, so the last one is mostly the right one. No symbolic link is followed on the way, so
  // that none can lead out of the root.
  int OpenParent(const std::string& name) {
    if (name.empty()) return rootFd_.get();
    if (parentFd_.valid() && name == parentName_) return parentFd_.get();
    parentFd_ = Fd();
    Fd at;
    for (const stdfs::path& part : stdfs::path(name)) {
      const int above = at.valid() ? at.get() : rootFd_.get();
      const bool made = ::mkdirat(above, part.c_str(), 0777) == 0;
      if (!made && errno != EEXIST)
        ThrowErrno(fmt::format("make the directory {}/{}", root_, name));
      Fd next(::openat(above, part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      if (!next.valid() && (errno == ELOOP || errno == ENOTDIR))
        throw Fault("cannot use {}/{}: {} is there and is no directory", root_, name,
                    part.string());
      if (!next.valid()) ThrowErrno(fmt::format("open the directory {}/{}", root_, name));
      at = std::move(next);
    }
    parentName_ = name;
    parentFd_ = std::move(at);
    return parentFd_.get();
  }

  std::string root_;
  Fd rootFd_;
  std::string parentName_;
  Fd parentFd_;
};

// Restores one file and counts it, or says why not. Returns its bytes.
uint64_t Restore(const StoreView& view, const ManifestEntry& entry, Buffer& buffer,
                 TargetTree& target, Existing existing, uint64_t& fileCount) {
  std::string what = entry.name + ": ";
  try {
    const ViewedBlob* found = view.Find(entry.hash);
    if (found == nullptr) throw Fault("{} has no blob {}", view.path(), entry.hash.text());
    const std::string_view blob = view.Read(*found, buffer);
    what.clear();  // the target's messages name the file themselves
    target.Write(entry.name, blob, existing);
    ++fileCount;
    return blob.size();
  } catch (const Fault& fault) {
    Say("{}{}", what, fault.what());
    return 0;
  }
}

ExitStatus SayWhatIsRestored(const StoreView& view, const std::vector<ManifestEntry>& entries,
                             const ExportOptions& options) {
  bool all = true;
  std::string text;
  for (const ManifestEntry& entry : entries) {
    const std::string path =
        (stdfs::path(options.directory) / stdfs::path(entry.name).lexically_normal()).string();
    std::error_code ignored;
    std::string obstacle;
    if (view.Find(entry.hash) == nullptr)
      obstacle = fmt::format("{} has no blob {}", view.path(), entry.hash.text());
    else if (!options.force && stdfs::exists(stdfs::symlink_status(path, ignored)))
      obstacle = "it exists and would be kept";
    all = all && obstacle.empty();
    if (obstacle.empty())
      text += path + "\n";
    else
      Say("{}: {}", path, obstacle);
  }
  PrintText(text);
  return all && !view.damaged() ? kSuccess : kFault;
}

}  // namespace

ExitStatus Export(const ExportOptions& options) {
  std::vector<ManifestEntry> entries = ReadManifest(options.manifest);
  std::erase_if(entries, [&options](const ManifestEntry& entry) {
    return !options.filter.Takes(stdfs::path(entry.name).lexically_normal().string());
  });
  for (const ManifestEntry& entry : entries)
    if (!IsSafe(entry.name))
      throw UsageError(
          "{} names \"{}\", which is not a file below the directory to restore into; nothing was "
          "written",
          options.manifest, entry.name);

  const StoreView view(options.at);
  if (options.dryRun) return SayWhatIsRestored(view, entries, options);
  TargetTree target(options.directory);
  const Existing existing = options.force ? Existing::kReplace : Existing::kKeep;
  Buffer buffer;
  uint64_t byteCount = 0;
  uint64_t fileCount = 0;
  Progress progress("restoring", entries.size());
  try {
    for (const ManifestEntry& entry : entries) {
      const uint64_t size = Restore(view, entry, buffer, target, existing, fileCount);
      byteCount += size;
      progress.Advance(size);
    }
  } catch (const Interrupted&) {
    target.Sync();
    throw Interrupted("interrupted: {} of {} restored", fileCount, Count(entries.size(), "file"));
  }
  target.Sync();
  Inform("restored {}, {}, in {:.1f} s", Count(fileCount, "file"), HumanSize(byteCount),
         progress.Elapsed());
  if (fileCount == entries.size()) return view.damaged() ? kFault : kSuccess;
  Say("{} not restored{}", Count(entries.size() - fileCount, "file"),
      options.force ? "" : "; --force replaces files that exist");
  return kFault;
}

}  // namespace tool
