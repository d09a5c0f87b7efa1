// init.
#include <algorithm>
#include <filesystem>

#include "tools/base/Console.h"
#include "tools/base/Json.h"
#include "tools/base/StagedFile.h"
#include "tools/command/Commands.h"
#include "tools/work/Open.h"

namespace tool {
namespace {

namespace stdfs = std::filesystem;

// A store without a blobring.conf: another program's, or one whose init was cut short. With other
// slots its blobs would be hidden, with a pack of another store the two would destroy each other.
void RequireOwnFiles(const Layout& layout) {
  const size_t journalCount = Layout::CountJournals(layout.store());
  const std::vector<SlotFile> files = layout.ReadFiles();
  const bool isUsed = std::any_of(files.begin(), files.end(),
                                  [](const SlotFile& file) { return file.status.IsUsed(); });
  if (journalCount > layout.slotCount() || (isUsed && journalCount != layout.slotCount()))
    throw UsageError("{} holds the journals of a store with {}: repeat init with --slots {}",
                     layout.store(), Count(journalCount, "slot"), journalCount);
  for (size_t slot = 0; slot < layout.slotCount(); ++slot) {
    const std::string pack = layout.PackPath(slot);
    const std::string inStore = format::PackPath(layout.store(), slot);
    const bool isElsewhere = layout.PackDir(slot) != layout.store();
    // An init that was cut short may have left an empty pack in the store's own directory.
    const bool isLeftover = !isElsewhere && !files[2 * slot].status.IsUsed();
    if (stdfs::exists(pack) && !isLeftover &&
        (!stdfs::exists(layout.JournalPath(slot)) || (isElsewhere && stdfs::exists(inStore))))
      throw UsageError("{} is not a pack of {}, it may be another store's; nothing was changed",
                       pack, layout.store());
  }
}

// Makes a store, with its directories, or takes over one that another program made with the same
// slots. A store that is there already stays as it is; false then.
bool Make(const StoreOptions& options) {
  const Layout wanted(options.directory, options.slotCount, options.packDirs);
  if (Layout::Exists(options.directory)) {
    const Layout present = Layout::Read(options.directory);
    if ((options.slotCount != 0 || !options.packDirs.empty()) && !wanted.SameSlots(present))
      throw UsageError("{} already exists with {}; slots cannot be changed", options.directory,
                       present.Description());
    Inform("{} already exists with {}; nothing was changed", options.directory,
           present.Description());
    return false;
  }
  RequireOwnFiles(wanted);
  MakeDirectory(options.directory);
  for (size_t slot = 0; slot < wanted.slotCount(); ++slot) MakeDirectory(wanted.PackDir(slot));
  const OpenStore open(options, Access::kCreate);
  wanted.Write();
  Inform("{} is a store with {}", options.directory, wanted.Description());
  return true;
}

ExitStatus Init(const StoreOptions& options) {
  const bool isNew = Make(options);
  const Layout layout = Layout::Read(options.directory);
  Json packDirs = Json::array();
  for (size_t slot = 0; slot < layout.slotCount(); ++slot) packDirs.push_back(layout.PackDir(slot));
  PrintObject({{"type", "init"},
               {"store", options.directory},
               {"pack_dirs", packDirs},
               {"created", isNew}});
  return kSuccess;
}

}  // namespace

void MakeStore(const StoreOptions& options) {
  Make(options);
}

void AddInit(CommandLine& line) {
  auto [command, at] =
      line.Add(Group::kWork,
               {"init", "make a store, with its directory",
                "The slots are recorded in blobring.conf and never change afterwards.",
                "blobring init /data/store"},
               Init);
  CommandLine::AddStore(command, at, Access::kCreate);
  command.add_option("--slots", at.slotCount, "slots, each a pack and a journal (default 2)")
      ->type_name("N")
      ->check(CLI::Range(1U, format::kMaxSlots));
  CommandLine::AddPackDirs(command, at.packDirs,
                           "where packs go instead; repeated, for the slots in turn");
}

}  // namespace tool
