// A tree of files out of a store.
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <span>

#include "tools/base/Console.h"
#include "tools/base/DirectoryTree.h"
#include "tools/base/Json.h"
#include "tools/base/StagedFile.h"
#include "tools/command/Commands.h"
#include "tools/view/StoreView.h"
#include "tools/work/Manifest.h"

namespace tool {
namespace {

namespace stdfs = std::filesystem;

struct ExportOptions {
  StoreOptions at;
  std::string manifest;  // "-" for standard input
  std::string directory;
  bool force = false;   // replace files that exist
  bool dryRun = false;  // print the names, write nothing
  NameFilter filter;
};

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
  explicit TargetTree(const std::string& directory) : tree_(Created(directory)) {}

  // Writes a file whole or not at all, with the directories that its name needs. REQUIRES: the name
  // is safe. Throws Fault.
  void Write(const stdfs::path& name, const ReadBlob& read, Existing existing) {
    const stdfs::path normal = name.lexically_normal();
    StagedFile file(tree_.OpenParent(normal.parent_path(), DirectoryTree::Missing::kCreate),
                    normal.filename(), fmt::format("{}/{}", root(), normal.string()));
    read.HandTo([&file](std::string_view piece) { file.Write(piece); });
    file.Publish(existing);
  }

  const std::string& root() const { return tree_.root(); }

  // What is there under the name.
  enum class Found { kNothing, kOther, kSame };
  static Found Find(const std::string& root, const stdfs::path& name, const ViewedBlob& blob) {
    std::error_code ignored;
    stdfs::path at = root;
    const stdfs::path normal = name.lexically_normal();
    for (const stdfs::path& part : normal.parent_path())
      if (stdfs::is_symlink(at /= part, ignored)) return Found::kNothing;  // Write() says so
    const std::string path = fmt::format("{}/{}", root, normal.string());
    if (!stdfs::exists(stdfs::symlink_status(path, ignored))) return Found::kNothing;
    if (stdfs::file_size(path, ignored) != blob.size) return Found::kOther;
    try {
      return DigestFile(AT_FDCWD, path, path).hash == blob.hash ? Found::kSame : Found::kOther;
    } catch (const Fault&) {
      return Found::kOther;
    }
  }

  // Makes everything written survive a power cut. Throws Fault.
  void Sync() const {
    if (::syncfs(tree_.fd()) != 0) ThrowErrno("flush " + root());
  }

 private:
  static std::string Created(const std::string& directory) {
    std::error_code ignored;  // what is wrong, opening it says as well
    stdfs::create_directories(directory, ignored);
    return directory;
  }

  DirectoryTree tree_;
};

struct ExportTotals {
  uint64_t fileCount = 0;  // restored
  uint64_t byteCount = 0;
  uint64_t sameCount = 0;    // were there already
  uint64_t absentCount = 0;  // the store has no such blob
  uint64_t keptCount = 0;    // another file has the name
  uint64_t failureCount = 0;

  bool IsWhole() const { return absentCount + keptCount + failureCount == 0; }
};

// Restores files some at a time, and counts them or says why not.
class Restorer {
 public:
  Restorer(const StoreView& view, TargetTree& target, Existing existing, ExportTotals& totals)
      : view_(view), target_(target), existing_(existing), totals_(totals) {}

  void Add(const ManifestEntry& entry) {
    using Found = TargetTree::Found;
    const ViewedBlob* const blob = view_.Find(entry.hash);
    if (blob == nullptr) {
      ++totals_.absentCount;
      return Say("{}: {} has no blob {}", entry.name, view_.path(), entry.hash.text());
    }
    // A name that comes again is there by then.
    const std::string path = stdfs::path(entry.name).lexically_normal().string();
    if (bytes_ + blob->size > kMaxBytes || paths_.size() == kMaxFiles || paths_.contains(path))
      Flush();
    const Found found = TargetTree::Find(target_.root(), entry.name, *blob);
    if (found == Found::kSame) {
      ++totals_.sameCount;
      return;
    }
    if (found == Found::kOther && existing_ == Existing::kKeep) {
      ++totals_.keptCount;
      return Say("{}: it exists with other contents and was kept", entry.name);
    }
    bytes_ += blob->size;
    paths_.insert(path);
    names_.push_back(entry.name);
    blobs_.push_back(blob);
  }

  // REQUIRES: called at the end.
  void Flush() {
    auto name = names_.begin();
    for (std::span<const ViewedBlob* const> rest = blobs_; !rest.empty();)
      for (const ReadBlob& read : view_.ReadSome(rest, buffer_)) Write(*name++, read);
    bytes_ = 0;
    paths_.clear();
    names_.clear();
    blobs_.clear();
  }

 private:
  static constexpr size_t kMaxFiles = 256;
  static constexpr uint64_t kMaxBytes = uint64_t{4} * 1024 * 1024;

  void Write(const std::string& name, const ReadBlob& read) {
    try {
      target_.Write(name, read, existing_);
      ++totals_.fileCount;
      totals_.byteCount += read.blob->size;
    } catch (const DamagedBlob& fault) {
      ++totals_.failureCount;
      SayDamage("{}: {}", name, fault.what());
    } catch (const Fault& fault) {
      ++totals_.failureCount;
      Say("{}", fault.what());
    }
  }

  const StoreView& view_;
  TargetTree& target_;
  const Existing existing_;
  ExportTotals& totals_;
  Buffer buffer_;
  uint64_t bytes_ = 0;  // of the blobs that wait
  std::set<std::string> paths_;
  std::vector<std::string> names_;
  std::vector<const ViewedBlob*> blobs_;
};

void SayTotals(const ExportTotals& totals, double seconds) {
  Inform("restored {}, {}, in {:.1f} s{}", Count(totals.fileCount, "file"),
         HumanSize(totals.byteCount), seconds,
         totals.sameCount == 0
             ? ""
             : fmt::format("; {} there already", Count(totals.sameCount, "file")));
  if (totals.keptCount != 0)
    Say("{} kept; --force replaces files that exist", Count(totals.keptCount, "other file"));
  if (totals.absentCount != 0)
    Say("{} not restored: the store does not have the contents", Count(totals.absentCount, "file"));
  if (totals.failureCount != 0)
    Say("{} not restored, see above", Count(totals.failureCount, "file"));
}

ExitStatus SayWhatIsRestored(const StoreView& view, const std::vector<ManifestEntry>& entries,
                             const ExportOptions& options) {
  using Found = TargetTree::Found;
  bool all = true;
  std::string text;
  for (const ManifestEntry& entry : entries) {
    const std::string path =
        (stdfs::path(options.directory) / stdfs::path(entry.name).lexically_normal()).string();
    const ViewedBlob* const blob = view.Find(entry.hash);
    const Found found =
        blob == nullptr ? Found::kNothing : TargetTree::Find(options.directory, entry.name, *blob);
    std::string obstacle;
    if (blob == nullptr)
      obstacle = fmt::format("{} has no blob {}", view.path(), entry.hash.text());
    else if (!options.force && found == Found::kOther)
      obstacle = "it exists with other contents and would be kept";
    all = all && obstacle.empty();
    if (!obstacle.empty())
      Say("{}: {}", path, obstacle);
    else if (found != Found::kSame && consoleOptions.json)
      text += JsonLine({{"type", "restored"}, {"path", path}, {"hash", entry.hash.text()}});
    else if (found != Found::kSame)
      text += path + "\n";
  }
  PrintText(text);
  return all && !view.damaged() ? kSuccess : kFault;
}

// Restores what the manifest lists below the directory, every blob checked against its hash as it
// is read. A file that cannot be restored is named and makes the result kFault; the others go on.
// Throws UsageError, with nothing written, when any name in the manifest would lead out of the
// directory.
ExitStatus Export(const ExportOptions& options) {
  std::vector<ManifestEntry> entries = ReadManifest(options.manifest);
  std::erase_if(entries, [&options](const ManifestEntry& entry) {
    return !options.filter.Matches(stdfs::path(entry.name).lexically_normal().string());
  });
  for (const ManifestEntry& entry : entries)
    if (!IsSafe(entry.name))
      throw UsageError(
          "{} names \"{}\", which is not a file below the directory to restore into; nothing was "
          "written",
          options.manifest, entry.name);

  StoreView view(options.at, Depth::kRecords);
  std::vector<const ViewedBlob*> blobs;
  blobs.reserve(entries.size());
  for (const ManifestEntry& entry : entries) blobs.push_back(view.Find(entry.hash));
  view.Confirm(blobs);
  if (options.dryRun) return SayWhatIsRestored(view, entries, options);
  TargetTree target(options.directory);
  const Existing existing = options.force ? Existing::kReplace : Existing::kKeep;
  ExportTotals totals;
  Restorer restorer(view, target, existing, totals);
  Progress progress("restoring", entries.size());
  try {
    for (const ManifestEntry& entry : entries) {
      const uint64_t before = totals.byteCount;
      restorer.Add(entry);
      progress.Advance(totals.byteCount - before);
    }
    restorer.Flush();
  } catch (const Interrupted&) {
    target.Sync();
    throw Interrupted("interrupted: {} of {} restored", totals.fileCount,
                      Count(entries.size(), "file"));
  } catch (const StoreChanged& changed) {
    target.Sync();
    throw StoreChanged("{}; {} of {} restored, run it again to go on", changed.what(),
                       totals.fileCount, Count(entries.size(), "file"));
  }
  target.Sync();
  PrintObject({{"type", "export"},
               {"files", totals.fileCount},
               {"bytes", totals.byteCount},
               {"there_already", totals.sameCount},
               {"kept", totals.keptCount},
               {"absent", totals.absentCount},
               {"failed", totals.failureCount}});
  SayTotals(totals, progress.Elapsed());
  return totals.IsWhole() && !view.damaged() ? kSuccess : kFault;
}

}  // namespace

void AddExport(CommandLine& line) {
  auto [command, options] = line.Add(Group::kWork,
                                     {"export", "restore the files of a manifest", "",
                                      "blobring export /data/store photos.md5 /tmp/photos"},
                                     Export);
  CommandLine::AddStore(command, options.at, Access::kLook);
  command.add_option("MANIFEST", options.manifest, "what import wrote; - for standard input")
      ->required();
  command.add_option("DIR", options.directory, "where to; made if need be")->required();
  command.add_flag("--force", options.force, "replace files that exist");
  CommandLine::AddFilter(command, options.filter);
  command.add_flag("-n,--dry-run", options.dryRun, "print the names, write nothing");
}

}  // namespace tool
