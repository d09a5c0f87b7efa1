// clean.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <set>

#include "tools/base/Console.h"
#include "tools/base/Json.h"
#include "tools/base/StagedFile.h"
#include "tools/command/Commands.h"
#include "tools/view/Faults.h"
#include "tools/view/StoreView.h"
#include "tools/work/Open.h"

namespace tool {
namespace {

namespace stdfs = std::filesystem;

struct CleanOptions {
  StoreOptions at;
  bool remove = false;
  bool force = false;   // also files that were set aside and hold what the store does not have
  bool dryRun = false;  // only list, whatever `remove` is
};

enum class LeftoverKind { kTemporary, kSetAside, kRepack };

struct Leftover {
  std::string path;
  LeftoverKind kind;
  uint64_t size = 0;
  uint64_t onlyHere = 0;   // blobs that the store does not have
  std::string fault = {};  // what `check` says of it
  bool removed = false;
};

std::string_view WhatIs(LeftoverKind kind) {
  return kind == LeftoverKind::kTemporary  ? "temporary file of a killed command"
         : kind == LeftoverKind::kSetAside ? "part of a damaged store, set aside"
                                           : "repack that did not finish";
}

// Nothing for files that are not leftovers.
std::optional<LeftoverKind> KindOf(const stdfs::path& path) {
  const std::string name = path.filename().string();
  if (IsAbandoned(OpenDirectory(path.parent_path()).get(), name)) return LeftoverKind::kTemporary;
  const std::optional<format::FileName> parsed = format::FileName::Parse(name);
  if (!parsed || parsed->IsOfSlot()) return std::nullopt;
  return parsed->IsSetAside() ? LeftoverKind::kSetAside : LeftoverKind::kRepack;
}

std::vector<Leftover> Find(const Layout& layout) {
  std::set<std::string> directories = {layout.store()};
  for (size_t slot = 0; slot < layout.slotCount(); ++slot) directories.insert(layout.PackDir(slot));
  std::vector<Leftover> found;
  for (const std::string& directory : directories)
    for (const auto& entry : stdfs::directory_iterator(directory)) {
      if (!entry.is_regular_file()) continue;
      if (const std::optional<LeftoverKind> kind = KindOf(entry.path()))
        found.push_back({entry.path().string(), *kind, entry.file_size()});
    }
  std::sort(found.begin(), found.end(),
            [](const Leftover& a, const Leftover& b) { return a.path < b.path; });
  return found;
}

// Lists, or removes, what killed commands left and what was set aside. Returns kNothing if there is
// nothing, kFault if a file that was to go stays. Throws Fault, with nothing removed, if the store
// is damaged: what was set aside may be needed.
ExitStatus Clean(const CleanOptions& options) {
  const Layout layout = LayoutOf(options.at, Access::kChange);
  const bool isRemoving = options.remove && !options.dryRun;
  std::vector<Leftover> found;
  bool isDamaged = false;
  {
    const StoreView view({layout.store()});
    isDamaged = view.damaged();
    if (isDamaged && isRemoving)
      throw Fault("the store {} is damaged, what was set aside may be needed; nothing was removed",
                  layout.store());
    // Locked, but not for changes: opening a damaged store for them is what sets files aside.
    std::optional<OpenStore> lock;
    if (isRemoving) lock.emplace(options.at, Access::kLook);
    found = Find(layout);
    for (Leftover& leftover : found) {
      if (leftover.kind == LeftoverKind::kSetAside) {
        leftover.onlyHere = BlobsOnlyIn({leftover.path}, view);
        leftover.fault = FaultInSetAside(leftover.path, view);
      }
      if (!isRemoving || (!leftover.fault.empty() && !options.force)) continue;
      if (::unlink(leftover.path.c_str()) != 0) ThrowErrno("remove " + leftover.path);
      leftover.removed = true;
    }
  }
  std::string text;
  uint64_t bytes = 0;
  uint64_t removedCount = 0;
  uint64_t neededCount = 0;  // of which `check` says something
  for (const Leftover& leftover : found) {
    bytes += leftover.size;
    neededCount += leftover.fault.empty() ? 0 : 1;
    removedCount += leftover.removed ? 1 : 0;
    const std::string_view what =
        leftover.fault.empty() ? WhatIs(leftover.kind) : std::string_view(leftover.fault);
    if (consoleOptions.json)
      text += JsonLine({{"type", "leftover"},
                        {"path", leftover.path},
                        {"size", leftover.size},
                        {"what", what},
                        {"blobs_only_here", leftover.onlyHere},
                        {"needs_force", !leftover.fault.empty()},
                        {"removed", leftover.removed}});
    else
      text += fmt::format("{} ({}): {}\n", leftover.path, HumanSize(leftover.size), what);
  }
  PrintText(text);
  std::string outcome;
  if (isRemoving)
    outcome = fmt::format("; {} removed", removedCount);
  else if (isDamaged)
    outcome = "; the store is damaged, so --delete would remove none";
  else if (!found.empty())
    outcome = fmt::format("; --delete removes {}", found.size() - neededCount);
  if (!isRemoving && !isDamaged && neededCount != 0)
    outcome += fmt::format(", with --force all {}", found.size());
  Inform("{}, {}{}", Count(found.size(), "file"), HumanSize(bytes), outcome);
  if (found.empty()) return kNothing;
  if (!isRemoving || removedCount == found.size()) return kSuccess;
  Say("kept what may hold all that is left of some blobs: `blobring salvage` copies what can be "
      "read into a new store, --force removes it");
  return kFault;
}

}  // namespace

void AddClean(CommandLine& line) {
  auto [command, options] =
      line.Add(Group::kWork,
               {"clean", "list what killed commands left, and what was set aside",
                "Temporary files, copies of damaged files that the store set aside, and repacks "
                "that did not finish.",
                "blobring clean --delete /data/store"},
               Clean);
  CommandLine::AddStore(command, options.at, Access::kChange);
  command.add_flag("--delete", options.remove, "remove them, but for files that check names");
  command.add_flag("--force", options.force, "with --delete: remove those as well");
  command.add_flag("-n,--dry-run", options.dryRun, "remove nothing");
}

}  // namespace tool
