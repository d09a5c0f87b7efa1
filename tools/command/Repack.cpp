// repack.
#include <algorithm>

#include "blobring/host.h"
#include "tools/base/Console.h"
#include "tools/base/Interrupt.h"
#include "tools/command/Commands.h"
#include "tools/work/Open.h"

namespace tool {
namespace {

// `force`: even when loading found damage. What can be read goes on as a sound store; the rest is
// given up.
struct RepackOptions {
  StoreOptions at;
  bool force = false;
  double ifDead = 0;  // per cent; less dead space than that: kNothing
  bool dryRun = false;
};

// What a repack would leave behind; its journal is a header alone.
uint64_t DeadBytes(const BCStatistics& statistics) {
  const uint64_t used = statistics.packBytes + statistics.journalBytes;
  return used - std::min(used, statistics.repackedBytes + format::kFileHeaderSize);
}

ExitStatus Repack(const RepackOptions& options) {
  OpenStore open(options.at, options.dryRun  ? Access::kLook
                             : options.force ? Access::kChangeDamaged
                                             : Access::kChange);
  const BCStatistics before = open.store.stats();
  const uint64_t dead = DeadBytes(before);
  const double used = static_cast<double>(before.packBytes + before.journalBytes);
  const double share = used > 0 ? 100 * static_cast<double>(dead) / used : 0;
  if (share < options.ifDead) {
    Inform("{:.1f} % is dead, less than {:.1f} %: nothing was changed", share, options.ifDead);
    return kNothing;
  }
  if (options.dryRun) {
    Inform("a repack would leave {} of dead records behind, {:.1f} % of what is in use",
           HumanSize(dead), share);
    return kSuccess;
  }
  Progress progress("repacking", before.blobCount);
  try {
    open.store.repack([&progress](blobring::Operation, uint64_t done, uint64_t) {
      progress.Show(done);
      return true;
    });
  } catch (const Interrupted&) {
    throw Interrupted("interrupted: the store is as it was");
  }
  const BCStatistics after = open.store.stats();
  Inform("repacked {}, {}: slot {} is current (sequence {}), {} of dead records left behind",
         Count(after.blobCount, "blob"), HumanSize(after.liveBytes),
         static_cast<uint32_t>(after.sequence) % open.layout.slotCount(), after.sequence,
         HumanSize(dead));
  return kSuccess;
}

}  // namespace

void AddRepack(CommandLine& line) {
  auto [command, options] =
      line.Add(Group::kWork,
               {"repack", "copy all blobs into the next slot, without what was deleted", "",
                "blobring repack /data/store"},
               Repack);
  CommandLine::AddStore(command, options.at, Access::kChange);
  command.add_flag("--force", options.force,
                   "even when the store is damaged: go on with what can be read");
  command.add_option("--if-dead", options.ifDead, "only if at least so much of it is dead: 30%")
      ->type_name("SHARE")
      ->transform([](std::string share) {
        if (share.ends_with('%')) share.pop_back();
        return share;
      })
      ->check(CLI::Range(0.0, 100.0));
  command.add_flag("--dry-run", options.dryRun, "say what a repack would leave behind");
}

}  // namespace tool
