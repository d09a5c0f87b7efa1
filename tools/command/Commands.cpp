#include "tools/command/Commands.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>

#include "blobring/host.h"
#include "tools/base/Interrupt.h"
#include "tools/base/StagedFile.h"
#include "tools/work/BatchWriter.h"

namespace tool {
namespace {

namespace stdfs = std::filesystem;

// A store without a blobring.conf: another program's, or one whose init was cut short. With other
// slots its blobs would be hidden, with a pack of another store the two would destroy each other.
void RequireOwnFiles(const Layout& layout) {
  const size_t journalCount = Layout::CountJournals(layout.store());
  const std::vector<SlotFile> files = layout.ReadFiles();
  const bool isUsed = std::any_of(files.begin(), files.end(),
                                  [](const SlotFile& file) { return file.head.IsUsed(); });
  if (journalCount > layout.slotCount() || (isUsed && journalCount != layout.slotCount()))
    throw UsageError("{} holds the journals of a store with {}: repeat init with --slots {}",
                     layout.store(), Count(journalCount, "slot"), journalCount);
  for (size_t slot = 0; slot < layout.slotCount(); ++slot) {
    const std::string pack = layout.PackPath(slot);
    const std::string inStore = format::PackPath(layout.store(), slot);
    const bool isElsewhere = layout.PackDir(slot) != layout.store();
    // An init that was cut short may have left an empty pack in the store's own directory.
    const bool isLeftover = !isElsewhere && !files[2 * slot].head.IsUsed();
    if (stdfs::exists(pack) && !isLeftover &&
        (!stdfs::exists(layout.JournalPath(slot)) || (isElsewhere && stdfs::exists(inStore))))
      throw UsageError("{} is not a pack of {}, it may be another store's; nothing was changed",
                       pack, layout.store());
  }
}

// What a repack would leave behind; its journal is a header alone.
uint64_t DeadBytes(const BCStatistics& statistics) {
  const uint64_t used = statistics.packBytes + statistics.journalBytes;
  return used - std::min(used, statistics.repackedBytes + format::kFileHeaderSize);
}

}  // namespace

ExitStatus Init(const StoreOptions& options) {
  const Layout wanted(options.directory, options.slotCount, options.packDirs);
  if (Layout::Exists(options.directory)) {
    const Layout present = Layout::Read(options.directory);
    if ((options.slotCount != 0 || !options.packDirs.empty()) && !wanted.SameSlots(present))
      throw UsageError("{} already exists with {}; slots cannot be changed", options.directory,
                       present.Description());
    Inform("{} already exists with {}; nothing was changed", options.directory,
           present.Description());
    return kSuccess;
  }
  RequireOwnFiles(wanted);
  MakeDirectory(options.directory);
  for (size_t slot = 0; slot < wanted.slotCount(); ++slot) MakeDirectory(wanted.PackDir(slot));
  const OpenStore open(options, Access::kCreate);
  wanted.Write();
  Inform("{} is a store with {}", options.directory, wanted.Description());
  return kSuccess;
}

ExitStatus Put(const PutOptions& options) {
  const auto& [at, files, dryRun] = options;
  LayoutOf(at, Access::kChange);  // before anything is waited for
  std::string lines;              // of committed blobs
  std::optional<OpenStore> open;
  std::optional<BatchWriter> writer;
  const auto close = [&] {
    if (writer) writer->Commit();
    writer.reset();
    open.reset();
  };
  Buffer buffer;
  bool all = true;
  try {
    for (const std::string& file : files.empty() ? std::vector<std::string>{"-"} : files) {
      if (IsInterrupted()) throw Interrupted("interrupted: what was printed is committed");
      std::error_code ignored;
      if (file == "-" || !stdfs::is_regular_file(file, ignored)) close();  // reading may wait
      std::string_view bytes;
      try {
        bytes = ReadStream(file, buffer);
      } catch (const Fault& fault) {
        Say("{}", fault.what());
        all = false;
        continue;
      }
      if (dryRun) {
        lines += blobring::Hash::of(std::as_bytes(std::span(bytes))).text() + "\n";
        continue;
      }
      if (!open) open.emplace(at, Access::kChange);
      if (!writer) writer.emplace(open->store, lines);
      writer->AddLine(writer->Add(bytes, file).hash.text() + "\n");
    }
    close();
  } catch (...) {
    writer.reset();
    open.reset();
    PrintText(lines);
    throw;
  }
  PrintText(lines);
  return all ? kSuccess : kFault;
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

}  // namespace tool
