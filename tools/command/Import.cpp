// A tree of files into a store.
#include <fts.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <set>

#include "tools/base/Console.h"
#include "tools/base/DirectoryTree.h"
#include "tools/base/Interrupt.h"
#include "tools/base/Json.h"
#include "tools/base/StagedFile.h"
#include "tools/command/Commands.h"
#include "tools/view/StoreView.h"
#include "tools/work/BatchWriter.h"
#include "tools/work/Manifest.h"
#include "tools/work/Open.h"

namespace tool {
namespace {

namespace stdfs = std::filesystem;

struct ImportOptions {
  StoreOptions at;
  std::vector<std::string> paths;  // directories and files
  std::string manifest;            // see Output; empty for standard output
  bool force = false;              // replace a manifest that exists
  bool dryRun = false;             // store nothing, write no manifest
  NameFilter filter;
};

// The regular files of the trees.
struct SourceTree {
  struct File {
    std::string root;   // the directory that it is read from
    std::string name;   // below the root, without "./"
    uint64_t size = 0;  // when it was listed, bytes

    std::string Path() const { return root + "/" + name; }
  };

  std::vector<File> files;  // in the order of their names' bytes, component by component
  uint64_t byteCount = 0;
  // Left out.
  uint64_t symbolicLinkCount = 0;
  uint64_t specialFileCount = 0;  // sockets, pipes and devices
  uint64_t excludedCount = 0;
  uint64_t filteredCount = 0;
  uint64_t unreadableCount = 0;  // lstat(2) or opendir(3) failed; each was named
};

// Their roots, open.
using OpenTrees = std::map<std::string, DirectoryTree>;

int OpenParent(OpenTrees& trees, const SourceTree::File& file) {
  DirectoryTree& tree = trees.try_emplace(file.root, file.root).first->second;
  return tree.OpenParent(stdfs::path(file.name).parent_path(), DirectoryTree::Missing::kFail);
}

LargeItem Digest(OpenTrees& trees, const SourceTree::File& file) {
  return DigestFile(OpenParent(trees, file), stdfs::path(file.name).filename(), file.Path());
}

int ByName(const FTSENT** a, const FTSENT** b) {
  return std::strcmp((*a)->fts_name, (*b)->fts_name);
}

// Adds the tree below a directory, which may itself be a symbolic link, or a single file. Throws
// Fault when `from` cannot be read.
void List(const std::string& from, const std::set<FileId>& exclude, const NameFilter& filter,
          SourceTree& tree) {
  std::string root = from;
  char* roots[] = {root.data(), nullptr};
  const std::unique_ptr<FTS, int (*)(FTS*)> walk(
      ::fts_open(roots, FTS_PHYSICAL | FTS_COMFOLLOW | FTS_NOCHDIR, ByName), ::fts_close);
  if (!walk) ThrowErrno("read " + from);
  const auto nameOf = [&root](const std::string& path) {
    return path.substr(path.find_first_not_of('/', root.size()));
  };
  errno = 0;
  for (; FTSENT* entry = ::fts_read(walk.get()); errno = 0) {
    const std::string path = entry->fts_path;
    const struct stat& status = *entry->fts_statp;
    const auto leaveOut = [&](std::string_view why, uint64_t& count) {
      ++count;
      if (consoleOptions.verbose) Say("left out {}: {}", path, why);
    };
    const int kind = entry->fts_info;
    const bool isFile = entry->fts_level == 0 && kind == FTS_F;
    const std::string directory =
        from.find('/') == std::string::npos ? "." : stdfs::path(from).parent_path().string();
    const std::string name = isFile                  ? stdfs::path(from).filename().string()
                             : entry->fts_level == 0 ? ""
                                                     : nameOf(path);
    if (entry->fts_level == 0 && kind != FTS_D && kind != FTS_DP && kind != FTS_F) {
      errno = entry->fts_errno != 0 ? entry->fts_errno : ENOTDIR;
      ThrowErrno("read " + from);
    }
    if (isFile && stdfs::is_symlink(from))
      throw UsageError("{} is a symbolic link; name the file itself", from);
    ThrowIfInterrupted();
    if (kind == FTS_D && entry->fts_level != 0 && filter.Excludes(name)) {
      leaveOut("not asked for", tree.filteredCount);
      ::fts_set(walk.get(), entry, FTS_SKIP);
    } else if (kind == FTS_DNR || kind == FTS_ERR || kind == FTS_NS) {
      ++tree.unreadableCount;
      Say("cannot read {}: {}", path, std::strerror(entry->fts_errno));
    } else if (kind == FTS_SL || kind == FTS_SLNONE) {
      leaveOut("a symbolic link", tree.symbolicLinkCount);
    } else if (kind == FTS_DEFAULT) {
      leaveOut("not a regular file", tree.specialFileCount);
    } else if (kind == FTS_F && exclude.contains({status.st_dev, status.st_ino})) {
      leaveOut("of the store, or the manifest", tree.excludedCount);
    } else if (kind == FTS_F && !filter.Matches(name)) {
      leaveOut("not asked for", tree.filteredCount);
    } else if (kind == FTS_F) {
      const auto size = static_cast<uint64_t>(status.st_size);
      tree.files.push_back({isFile ? directory : root, name, size});
      tree.byteCount += size;
    }
  }
  if (errno != 0) ThrowErrno("read " + from);
}

// Throws UsageError if two files would have the same name in the manifest.
SourceTree ListAll(const ImportOptions& options, const std::set<FileId>& exclude) {
  SourceTree tree;
  for (const std::string& path : options.paths) List(path, exclude, options.filter, tree);
  std::set<std::string_view> names;
  for (const SourceTree::File& file : tree.files)
    if (options.paths.size() > 1 && !names.insert(file.name).second)
      throw UsageError("two files would be called {} in the manifest; nothing was stored",
                       file.name);
  return tree;
}

struct ImportTotals {
  uint64_t fileCount = 0;
  uint64_t byteCount = 0;
  uint64_t newCount = 0;  // blobs that the store did not have
  uint64_t newBytes = 0;
  uint64_t failureCount = 0;
  uint64_t changedCount = 0;
};

// What must not be imported: the store's files, the manifest, standard output.
std::set<FileId> Excluded(const Layout& layout, const std::string& manifest, const Output& out) {
  std::set<FileId> ids;
  const auto add = [&ids](const std::optional<FileId>& id) {
    if (id) ids.insert(*id);
  };
  add(out.stagedId());
  if (!manifest.empty()) add(IdOf(manifest));
  add(IdOf(Layout::ConfPath(layout.store())));
  for (size_t slot = 0; slot < layout.slotCount(); ++slot) {
    add(IdOf(layout.PackPath(slot)));
    add(IdOf(layout.JournalPath(slot)));
  }
  return ids;
}

// Stores files some at a time, and counts them. Nothing in a file can throw here, only the store.
class Importer {
 public:
  Importer(BatchWriter& writer, ImportTotals& totals, bool asObjects)
      : writer_(writer), totals_(totals), asObjects_(asObjects) {
    bytes_.reserve(kMaxBytes);
  }

  void Add(const SourceTree::File& file) {
    if (file.size > kLargeSize && AddLarge(file)) return;
    const std::string path = file.Path();
    SourceFile source;
    try {
      source = ReadRegularFile(OpenParent(trees_, file), stdfs::path(file.name).filename(), path,
                               buffer_);
    } catch (const Fault& fault) {
      ++totals_.failureCount;
      return Say("{}", fault.what());
    }
    if (source.changed) {
      ++totals_.changedCount;
      Say("{} changed while it was read; stored as it was read last", path);
    }
    const size_t size = source.bytes.size();
    if (items_.size() == kMaxFiles || size > kMaxBytes - bytes_.size()) Flush();
    std::string_view bytes = source.bytes;
    if (size <= kMaxBytes) {
      bytes_ += bytes;
      bytes = std::string_view(bytes_).substr(bytes_.size() - size);
    }
    items_.push_back({bytes, path});
    names_.push_back(file.name);
    if (size > kMaxBytes) Flush();
  }

  // REQUIRES: called at the end.
  void Flush() {
    auto name = names_.begin();
    writer_.AddMany(items_, [&](const BatchWriter::Item& item, const BatchWriter::Added& added) {
      Note(*name++, item.data.size(), added);
    });
    items_.clear();
    names_.clear();
    bytes_.clear();
  }

 private:
  static constexpr size_t kMaxFiles = 256;
  static constexpr size_t kMaxBytes = size_t{1024} * 1024;

  // False if it must be read whole: it cannot be read, which will be said then, or is changing.
  bool AddLarge(const SourceTree::File& file) {
    std::optional<LargeItem> item;
    try {
      item = Digest(trees_, file);
    } catch (const Fault&) {
      return false;
    }
    Flush();
    const std::optional<BatchWriter::Added> added = writer_.AddLarge(*item);
    if (added) Note(file.name, item->size, *added);
    return added.has_value();
  }

  void Note(const std::string& name, uint64_t size, const BatchWriter::Added& added) {
    // "./" as find(1) prints it: a file named "-" would be standard input to md5sum.
    writer_.AddLine(asObjects_ ? StoredLine(added.hash, size, "./" + name, false)
                               : ManifestLine({added.hash, "./" + name}));
    totals_.newCount += added.isNew ? 1 : 0;
    totals_.newBytes += added.isNew ? size : 0;
    ++totals_.fileCount;
    totals_.byteCount += size;
  }

  OpenTrees trees_;
  BatchWriter& writer_;
  ImportTotals& totals_;
  const bool asObjects_;  // instead of the manifest's lines
  Buffer buffer_;
  std::string bytes_;  // of files up to kMaxBytes
  std::vector<BatchWriter::Item> items_;
  std::vector<std::string> names_;
};

void SayTotals(const SourceTree& tree, const ImportTotals& totals, double seconds) {
  Inform("imported {}, {}, in {:.1f} s", Count(totals.fileCount, "file"),
         HumanSize(totals.byteCount), seconds);
  Inform("{} stored, {}; {} had contents that the store holds already, which saved {}",
         Count(totals.newCount, "new blob"), HumanSize(totals.newBytes),
         Count(totals.fileCount - totals.newCount, "file"),
         HumanSize(totals.byteCount - totals.newBytes));
  std::vector<std::string> leftOut;
  if (tree.symbolicLinkCount != 0)
    leftOut.push_back(Count(tree.symbolicLinkCount, "symbolic link"));
  if (tree.specialFileCount != 0) leftOut.push_back(Count(tree.specialFileCount, "special file"));
  if (tree.excludedCount != 0)
    leftOut.push_back(Count(tree.excludedCount, "file") + " of the store or the manifest");
  if (!leftOut.empty()) Inform("left out: {}", fmt::join(leftOut, ", "));
  if (tree.filteredCount != 0)
    Inform("not asked for: {}", tree.filteredCount == 1
                                    ? "1 file or directory"
                                    : fmt::format("{} files and directories", tree.filteredCount));
  const uint64_t failed = totals.failureCount + tree.unreadableCount;
  if (failed != 0)
    Say("{} could not be stored and {} not in the manifest",
        failed == 1 ? "1 entry" : fmt::format("{} entries", failed), failed == 1 ? "is" : "are");
}

void PrintTotals(const SourceTree& tree, const ImportTotals& totals, bool dryRun) {
  PrintObject({{"type", "import"},
               {"files", totals.fileCount},
               {"bytes", totals.byteCount},
               {"new_blobs", totals.newCount},
               {"new_bytes", totals.newBytes},
               {"failed", totals.failureCount + tree.unreadableCount},
               {"changed", totals.changedCount},
               {"left_out", tree.symbolicLinkCount + tree.specialFileCount + tree.excludedCount +
                                tree.filteredCount},
               {"dry_run", dryRun}});
}

ExitStatus SayWhatIsNew(const SourceTree& tree, const StoreOptions& at) {
  const StoreView view({at.directory});
  std::set<blobring::Hash> added;
  ImportTotals totals;
  std::string text;
  OpenTrees trees;
  Progress progress("reading", tree.files.size(), tree.byteCount);
  for (const SourceTree::File& file : tree.files) {
    progress.Advance(file.size);
    try {
      const LargeItem item = Digest(trees, file);
      ++totals.fileCount;
      totals.byteCount += item.size;
      if (view.Find(item.hash) != nullptr || !added.insert(item.hash).second) continue;
      ++totals.newCount;
      totals.newBytes += item.size;
      text += consoleOptions.json ? StoredLine(item.hash, item.size, "./" + file.name, true)
                                  : ManifestLine({item.hash, "./" + file.name});
    } catch (const Fault& fault) {
      ++totals.failureCount;
      Say("{}", fault.what());
    }
  }
  PrintText(text);
  PrintTotals(tree, totals, true);
  Inform("{} of {} would be stored, {}", Count(totals.newCount, "new blob"),
         Count(tree.files.size(), "file"), HumanSize(totals.newBytes));
  return totals.failureCount + tree.unreadableCount == 0 && !view.damaged() ? kSuccess : kFault;
}

// Stores every regular file below the directories, and the files, then writes the manifest. A file
// that cannot be stored as it is (unreadable, too large) is named, left out of the manifest and
// makes the result kFault; the others go on. A manifest file appears only when the import has come
// to its end; other output has what was committed. Throws Fault or blobring::Error when the store
// itself fails; what was committed by then stays, and a second run does not store it again.
ExitStatus Import(const ImportOptions& options) {
  const Layout layout = LayoutOf(options.at, Access::kChange);
  CreateAsClosedAs(layout.JournalPath(0));
  Output out(options.manifest, options.force ? Existing::kReplace : Existing::kKeep);
  const SourceTree tree = ListAll(options, Excluded(layout, options.manifest, out));
  if (options.dryRun) return SayWhatIsNew(tree, options.at);
  std::string lines;
  ImportTotals totals;
  Progress progress("importing", tree.files.size(), tree.byteCount);
  try {
    OpenStore open(options.at, Access::kChange);
    BatchWriter writer(open.store, lines);
    const bool asObjects =
        consoleOptions.json && (options.manifest.empty() || options.manifest == "-");
    Importer importer(writer, totals, asObjects);
    try {
      for (const SourceTree::File& file : tree.files) {
        importer.Add(file);
        progress.Advance(file.size);
      }
      importer.Flush();
      writer.Commit();
    } catch (const Interrupted&) {
      writer.CommitInterrupted();
    }
  } catch (...) {
    const auto taken = std::count(lines.begin(), lines.end(), '\n');
    if (totals.fileCount != 0 && !IsInterrupted())
      Say("{} of {} are stored; when the import is run again, they are not stored twice", taken,
          Count(tree.files.size(), "file"));
    if (!out.isFile()) out.Write(lines);
    throw;
  }
  out.Write(lines);
  out.Finish();
  PrintTotals(tree, totals, false);
  SayTotals(tree, totals, progress.Elapsed());
  return totals.failureCount + totals.changedCount + tree.unreadableCount == 0 ? kSuccess : kFault;
}

}  // namespace

void AddImport(CommandLine& line) {
  auto [command, options] =
      line.Add(Group::kWork,
               {"import", "store files, and every regular file of a tree",
                "The manifest has the form of md5sum(1). What was committed stays when the command "
                "is interrupted; a second run does not store it again.",
                "blobring import -m photos.md5 /data/store ~/photos"},
               Import);
  CommandLine::AddStore(command, options.at, Access::kChange);
  command
      .add_option("PATH", options.paths,
                  "trees and files; in the manifest, files by their last names")
      ->required();
  command
      .add_option("-m,--manifest", options.manifest,
                  "where to write the manifest; standard output otherwise")
      ->type_name("FILE");
  command.add_flag("--force", options.force, "replace a manifest that exists");
  CommandLine::AddFilter(command, options.filter);
  command.add_flag("-n,--dry-run", options.dryRun,
                   "print the manifest's lines for new contents, store nothing");
}

}  // namespace tool
