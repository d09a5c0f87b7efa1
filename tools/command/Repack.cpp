// repack.
#include <algorithm>
#include <filesystem>

#include "blobring/host.h"
#include "pack/format/Generation.h"
#include "tools/base/Console.h"
#include "tools/base/Interrupt.h"
#include "tools/base/Json.h"
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

// What the disk must hold, as the headers tell before the store is opened: at most, every record of
// the current generation is live.
void SayNeed(const Layout& layout) {
  const std::vector<SlotFile> files = layout.ReadFiles();
  const auto slotCount = static_cast<uint32_t>(files.size() / 2);
  if (slotCount == 0) return;
  const auto sequenceOf = [&](uint32_t slot) { return files[2 * slot].status.header.sequence; };
  const auto newest = format::ChooseNewest<std::vector<uint32_t>>(
      slotCount,
      [&](uint32_t a, uint32_t b) { return format::IsNewer(sequenceOf(a), sequenceOf(b)); },
      [&](uint32_t slot) {
        return files[2 * slot].status.IsLoadable() ? std::optional(sequenceOf(slot)) : std::nullopt;
      });
  if (!newest) return;
  const uint64_t most = uint64_t{files[2 * newest->packSlot].status.header.endOffset} +
                        files[2 * newest->journalSlot + 1].status.header.endOffset;
  const size_t next = (static_cast<uint32_t>(newest->sequence) + 1) % slotCount;
  const uint64_t old = layout.slotCount() == 1 ? 0 : files[2 * next].status.size;
  Inform("the new pack takes at most {} in {}{}", HumanSize(most), layout.PackDir(next),
         old == 0 ? "" : fmt::format(", where it replaces {} of an older one", HumanSize(old)));
  std::error_code unknown;
  const uint64_t free = std::filesystem::space(layout.PackDir(next), unknown).available;
  if (!unknown && free + old < most)
    Say("{} are free there: should the disk get full, the store stays as it is", HumanSize(free));
}

struct Repacked {
  bool isDone = false;
  uint64_t deadBytes = 0;
  size_t slot = 0;
  BCStatistics now = {};
};

Repacked Run(const RepackOptions& options, Access access) {
  OpenStore open(options.at, access);
  const BCStatistics before = open.store.stats();
  const auto outcome = [&](bool isDone) {
    const BCStatistics now = open.store.stats();
    return Repacked{isDone, DeadBytes(before),
                    static_cast<uint32_t>(now.sequence) % open.layout.slotCount(), now};
  };
  const uint64_t dead = DeadBytes(before);
  const double used = static_cast<double>(before.packBytes + before.journalBytes);
  const double share = used > 0 ? 100 * static_cast<double>(dead) / used : 0;
  if (share < options.ifDead) {
    Inform("{:.1f} % is dead, less than {:.1f} %: nothing was changed", share, options.ifDead);
    return outcome(false);
  }
  if (options.ifDead > 0 && !options.force) SayNeed(open.layout);
  if (options.dryRun) {
    Inform("a repack would leave {} of dead records behind, {:.1f} % of what is in use",
           HumanSize(dead), share);
    return outcome(true);
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
  return outcome(true);
}

ExitStatus Repack(const RepackOptions& options) {
  const Access access = options.dryRun  ? Access::kLook
                        : options.force ? Access::kChangeDamaged
                                        : Access::kChange;
  if (!options.force && options.ifDead <= 0) SayNeed(LayoutOf(options.at, access));
  const Repacked repacked = Run(options, access);
  const BCStatistics& now = repacked.now;
  if (repacked.isDone && !options.dryRun)
    Inform("repacked {}, {}: slot {} is current (sequence {}), {} of dead records left behind",
           Count(now.blobCount, "blob"), HumanSize(now.liveBytes), repacked.slot, now.sequence,
           HumanSize(repacked.deadBytes));
  PrintObject({{"type", "repack"},
               {"done", repacked.isDone},
               {"dry_run", options.dryRun},
               {"blobs", now.blobCount},
               {"live_bytes", now.liveBytes},
               {"dead_bytes", repacked.deadBytes},
               {"slot", repacked.slot},
               {"sequence", now.sequence}});
  return repacked.isDone ? kSuccess : kNothing;
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
  command.add_flag("-n,--dry-run", options.dryRun, "say what a repack would leave behind");
}

}  // namespace tool
