// Copies blobs out of files on which a store can no longer be opened.
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "pack/format/Generation.h"
#include "tools/base/Console.h"
#include "tools/base/Interrupt.h"
#include "tools/base/Json.h"
#include "tools/command/Commands.h"
#include "tools/view/FileWalk.h"
#include "tools/view/SalvageScan.h"
#include "tools/view/StoreView.h"
#include "tools/work/BatchWriter.h"
#include "tools/work/Open.h"

namespace tool {
namespace {

namespace stdfs = std::filesystem;
using Kind = SalvagedRecord::Kind;
using HashSet = std::unordered_set<blobring::Hash>;
using LiveBlobs = std::unordered_map<blobring::Hash, bool>;  // false: deleted

struct SalvageOptions {
  std::string directory;
  std::vector<std::string> packDirs;  // beside those that the directory's layout file names
  std::string store;                  // the new store
  bool liveOnly = false;
  bool dryRun = false;  // report only
};

struct SalvagedFile {
  std::string path;
  format::FileName name;
  SalvageScan scan = {};
  std::string failure = {};  // why the file cannot be opened, or nothing
  bool isSound = false;      // as it was printed
  bool lastIsTorn = false;   // the same

  int32_t sequence() const { return scan.status.header.sequence; }
};

struct SalvagedFiles {
  std::vector<SalvagedFile> files;
  std::vector<std::string> missing;  // named by the layout file
  uint64_t slotCount = 1;
  bool slotsAreKnown = false;                // from the layout file
  const SalvagedFile* newestPack = nullptr;  // none if that cannot be told
  bool newestIsSound = false;                // it and its journal
  LiveBlobs isLive;

  bool IsLive(const blobring::Hash& hash) const {
    const auto at = isLive.find(hash);
    return newestPack == nullptr || (at != isLive.end() && at->second);
  }
};

// For people: to standard output, or with --json to standard error.
template <class... T>
void Tell(fmt::format_string<T...> text, T&&... values) {
  const std::string lines = fmt::format(text, std::forward<T>(values)...);
  if (!consoleOptions.json)
    PrintText(lines);
  else if (!consoleOptions.quiet)
    WriteAll(STDERR_FILENO, Printable(lines, true), "to standard error");
}

void ScanDirectory(const std::string& directory, std::vector<SalvagedFile>& files) {
  std::error_code code;
  std::set<std::string> names;
  for (const auto& entry : stdfs::directory_iterator(directory, code))
    names.insert(entry.path().filename());
  if (code) throw Fault("cannot read the directory {}: {}", directory, code.message());
  for (const std::string& name : names) {
    const std::optional<format::FileName> parsed = format::FileName::Parse(name);
    if (!parsed) continue;
    SalvagedFile& file =
        files.emplace_back(SalvagedFile{fmt::format("{}/{}", directory, name), *parsed});
    ThrowIfInterrupted();
    try {
      file.scan = Scan(file.path);
    } catch (const Fault& fault) {
      file.failure = fault.what();
    }
  }
}

// The files of one suffix in the order of their slots, each pack before its journal.
std::vector<SlotFile> SlotsOf(const std::vector<SalvagedFile>& files, const std::string& suffix,
                              uint64_t slotCount) {
  std::vector<SlotFile> slots(2 * slotCount);
  for (size_t i = 0; i < slots.size(); ++i)
    slots[i].path = i % 2 == 0 ? format::PackName(i / 2) : format::JournalName(i / 2);
  for (const SalvagedFile& file : files)
    if (file.name.suffix == suffix && file.failure.empty() && file.name.slot < slotCount)
      slots[2 * file.name.slot + (file.name.isPack ? 0 : 1)] = {file.path, file.scan.status};
  return slots;
}

// Says which files have each other's names, or else which packs are lost for all that their
// journals tell. Returns whether there is none.
bool PrintMisplaced(const SalvagedFiles& found) {
  const std::vector<SlotFile> slots = SlotsOf(found.files, "", found.slotCount);
  const auto swapped = found.slotsAreKnown ? FindSwapped(slots) : SwappedFiles();
  for (const auto& [file, text] : swapped) Tell("{}\n", text);
  if (!swapped.empty()) return false;
  const std::vector<size_t> lost = LostPacks(slots);
  for (const size_t file : lost)
    Tell("{}: damaged or lost, it may have been the newest pack\n", slots[file].path);
  return lost.empty();
}

// What to believe of the newest generation. It is the pack of the highest sequence with the journal
// of the slot that the sequence selects. A damaged sequence must not make live blobs look deleted,
// so the pack's name and the journals have to agree with it, and no other pack of those that belong
// together may be one that was newer and is lost.
bool IsNewestForCertain(const SalvagedFile& pack, const SalvagedFile* journal, uint64_t slotCount,
                        const std::vector<SalvagedFile>& files) {
  const uint64_t slot = format::SlotOf(pack.sequence(), static_cast<uint32_t>(slotCount));
  if (journal == nullptr ||
      (pack.name.slot != slot && pack.sequence() != 0 && pack.name.IsOfSlot()))
    return false;
  const std::vector<SlotFile> slots = SlotsOf(files, pack.name.suffix, slotCount);
  for (uint64_t other = 0; other < slotCount; ++other) {
    const SlotFile& otherPack = slots[2 * other];
    const SlotFile& otherJournal = slots[2 * other + 1];
    const int32_t sequence = otherJournal.status.header.sequence;
    const bool isOfPack = sequence == pack.sequence() || sequence == format::kSequenceReset;
    if (otherJournal.status.state == FileStatus::State::kSound && !isOfPack &&
        (other == slot || sequence > pack.sequence()))
      return false;
    if (other != pack.name.slot && (otherPack.status.state == FileStatus::State::kMissing ||
                                    IsLost(slots, other, pack.sequence())))
      return false;
  }
  return true;
}

// The last record of each hash decides. A broken record is one of a blob that was there.
void Apply(const SalvageScan& scan, LiveBlobs& isLive) {
  for (const SalvagedRecord& record : scan.records)
    if (scan.IsCommitted(record) || scan.CountDiffers())
      isLive[record.hash] = record.kind != Kind::kDelete;
}

// Only what the headers count is applied, and only deletions of complete transactions: a blob in
// doubt is live.
void FindLive(SalvagedFiles& found) {
  const SalvagedFile* pack = nullptr;
  for (const SalvagedFile& file : found.files) {
    if (!file.name.isPack || file.name.IsUnfinished() || !file.scan.IsSound() ||
        file.sequence() < 0)
      continue;
    // Of two with the same sequence, the one that was not set aside.
    if (pack == nullptr || std::pair(pack->sequence(), file.name.suffix) <
                               std::pair(file.sequence(), pack->name.suffix))
      pack = &file;
  }
  if (pack == nullptr) return;
  const uint64_t slot = format::SlotOf(pack->sequence(), static_cast<uint32_t>(found.slotCount));
  const SalvagedFile* journal = nullptr;
  for (const SalvagedFile& file : found.files)
    if (!file.name.isPack && file.name.suffix == pack->name.suffix && file.failure.empty() &&
        file.name.slot == slot)
      journal = &file;
  if (!IsNewestForCertain(*pack, journal, found.slotCount, found.files)) return;
  found.newestPack = pack;
  found.newestIsSound = pack->isSound && journal->isSound;
  const auto take = [&](const std::function<bool(const SalvagedFile&)>& isWanted) {
    std::map<std::string, LiveBlobs> others;
    for (const bool isPack : {true, false})
      for (const SalvagedFile& file : found.files)
        if (file.name.isPack == isPack && !file.name.IsUnfinished() && &file != pack &&
            &file != journal && isWanted(file))
          Apply(file.scan,
                others[file.name.suffix == pack->name.suffix ? std::to_string(file.name.slot)
                                                             : file.path]);
    for (const auto& [name, blobs] : others)
      for (const auto& [hash, isLive] : blobs)
        if (isLive) found.isLive[hash] = true;
  };
  // Where the newest generation is damaged, it may have had any blob of the older ones. What was
  // set aside had to be left out by a load, and the end of a journal came after what is left of it.
  const auto isOlder = [&](const SalvagedFile& file) {
    return file.name.suffix == pack->name.suffix;
  };
  if (!found.newestIsSound) take(isOlder);
  take([&](const SalvagedFile& file) { return !isOlder(file) && file.name.isPack; });
  Apply(pack->scan, found.isLive);
  Apply(journal->scan, found.isLive);
  take([&](const SalvagedFile& file) { return !isOlder(file) && !file.name.isPack; });
}

bool LiesIn(const std::string& path, const std::string& directory) {
  const stdfs::path relative =
      stdfs::weakly_canonical(path).lexically_relative(stdfs::weakly_canonical(directory));
  return !relative.empty() && *relative.begin() != "..";
}

SalvagedFiles ScanAll(const SalvageOptions& options) {
  SalvagedFiles found;
  std::vector<std::string> directories = {options.directory};
  directories.insert(directories.end(), options.packDirs.begin(), options.packDirs.end());
  if (Layout::Exists(options.directory)) {
    try {
      const Layout layout = Layout::Read(options.directory);
      found.slotCount = layout.slotCount();
      found.slotsAreKnown = true;
      for (size_t slot = 0; slot < found.slotCount; ++slot) {
        if (stdfs::exists(layout.PackDir(slot))) directories.push_back(layout.PackDir(slot));
        for (const std::string& path : {layout.PackPath(slot), layout.JournalPath(slot)})
          if (!stdfs::exists(path)) found.missing.push_back(path);
      }
    } catch (const std::exception& error) {
      Say("{}", error.what());  // without it, the directories are those of the command line
    }
  }
  for (const std::string& directory : directories)
    if (LiesIn(options.store, directory) || LiesIn(directory, options.store))
      throw UsageError("{} and {} must not contain each other", options.store, directory);
  std::set<stdfs::path> seen;
  for (const std::string& directory : directories)
    if (seen.insert(stdfs::weakly_canonical(directory)).second)
      ScanDirectory(directory, found.files);
  if (found.files.empty()) throw Fault("{} holds no pack and no journal", options.directory);
  for (const SalvagedFile& file : found.files)
    if (file.name.IsOfSlot() || !found.slotsAreKnown)
      found.slotCount = std::max(found.slotCount, file.name.slot + 1);
  return found;
}

// Prints a paragraph about a file, and notes whether it is sound.
void PrintFile(SalvagedFile& file) {
  if (!file.failure.empty()) {
    Tell("{}\n  {}\n", file.path, file.failure);
    return;
  }
  const SalvageScan& scan = file.scan;
  const format::FileHeader& header = scan.status.header;
  bool sound = scan.status.state != FileStatus::State::kDamaged;
  Tell("{}: {}\n", file.path, Count(scan.status.size, "byte"));
  if (scan.IsSound())
    Tell("  header: sound, sequence {}, {}, {} bytes in use\n", header.sequence,
         Count(header.recordCount, "record"), header.endOffset);
  else
    Tell("  header: {}\n", sound ? "new, no records" : "damaged");
  Tell("  found: {}, {}, {}\n", Count(scan.completeTransactions, "complete transaction"),
       Count(scan.blobs, "blob"), Count(scan.deletions, "deletion"));
  // Under the header of a journal that was set aside there is only a part of it.
  Walked walked;
  if (!file.name.isPack && file.name.IsOfSlot() &&
      (scan.incompleteTransactions != 0 || scan.CountDiffers())) {
    SalvageFile opened(file.path);
    walked = Walk(opened, scan.status, {});
  }
  const uint64_t soundEnd = walked.lastIsTorn ? walked.end : scan.committedEnd;
  const auto note = [&](uint64_t at, const std::string& line) {
    Tell("  {}{}\n", line,
         at < soundEnd            ? ""
         : at < scan.committedEnd ? " (of the incomplete transaction)"
                                  : " (leftover, not in use)");
    sound = sound && at >= soundEnd;
  };
  const auto noteRanges = [&](const Ranges& ranges, std::string_view what) {
    for (const auto& [begin, end] : ranges)
      note(begin, fmt::format("{:#x}-{:#x}: {}, {}", begin, end, Count(end - begin, "byte"), what));
  };
  if (walked.damage) {
    Tell("  {:#x}: {}\n", walked.damage->offset, walked.damage->what);
    sound = sound && walked.lastIsTorn;
  }
  if (scan.incompleteTransactions != 0 && !walked.lastIsTorn)
    note(0, Count(scan.incompleteTransactions, "incomplete transaction"));
  if (scan.CountDiffers() && file.name.IsOfSlot() && !walked.damage)
    note(0, "the header counts other records than were found");
  noteRanges(scan.unreadable, "cannot be read from the disk");
  noteRanges(scan.noRecord, "no record");
  for (const SalvagedRecord& record : scan.records)
    if (record.kind == Kind::kBroken)
      note(scan.IsCommitted(record) ? record.offset : scan.committedEnd,
           fmt::format("{:#x}: blob {}, {}, {}", record.offset, record.hash.text(),
                       Count(record.blobSize, "byte"),
                       record.end() > scan.status.size ? "runs past the end of the file"
                                                       : "does not match its hash"));
  if (scan.stoppedProbing) note(0, "too much looks like a record: some places were not tried");
  file.isSound = sound;
  file.lastIsTorn = walked.lastIsTorn;
}

uint64_t LiveCount(const SalvagedFiles& found) {
  HashSet live;
  for (const SalvagedFile& file : found.files)
    for (const SalvagedRecord& record : file.scan.records)
      if (record.kind == Kind::kBlob && found.IsLive(record.hash)) live.insert(record.hash);
  return live.size();
}

struct Copied {
  HashSet hashes;
  uint64_t bytes = 0;
  HashSet leftBehind;  // not live
  bool complete = true;
};

// Copies every blob that was found into the store, each once.
Copied CopyBlobs(const SalvagedFiles& found, bool liveOnly, blobring::Store& store) {
  std::string unused;
  uint64_t blobCount = 0;
  for (const SalvagedFile& from : found.files) blobCount += from.scan.blobs;
  Progress progress("recovering", blobCount);
  BatchWriter writer(store, unused, BatchWriter::WhenFull::kRepack);
  Buffer buffer;
  Copied copied;
  for (const SalvagedFile& from : found.files) {
    if (!from.failure.empty()) continue;
    SalvageFile file(from.path);
    for (const SalvagedRecord& record : from.scan.records) {
      if (record.kind != Kind::kBlob) continue;
      progress.Advance(record.blobSize);
      if (copied.hashes.contains(record.hash)) continue;
      if (liveOnly && !found.IsLive(record.hash)) {
        copied.leftBehind.insert(record.hash);
        continue;
      }
      Grow(buffer, record.blobSize);
      const std::span blob(buffer.data(), record.blobSize);
      file.Read(record.dataOffset(), reinterpret_cast<unsigned char*>(blob.data()), blob.size());
      if (blobring::Hash::of(std::as_bytes(blob)) != record.hash) {
        Say("{}: blob {} can no longer be read at {:#x}", from.path, record.hash.text(),
            record.offset);
        copied.complete = false;
        continue;
      }
      writer.Add({blob.data(), blob.size()}, record.hash.text());
      copied.hashes.insert(record.hash);
      copied.bytes += record.blobSize;
    }
  }
  writer.Commit();
  return copied;
}

// Returns whether all blobs are in the new store.
bool MakeStore(const SalvagedFiles& found, const SalvageOptions& options, Json& object) {
  const StoreOptions at = {options.store};
  try {
    MakeStore(at);
    std::optional<OpenStore> open(std::in_place, at, Access::kChange);
    Copied copied = CopyBlobs(found, options.liveOnly, open->store);
    open.reset();
    object["recovered"] = copied.hashes.size();
    object["recovered_bytes"] = copied.bytes;
    std::string text =
        fmt::format("recovered: {}, {} bytes", Count(copied.hashes.size(), "blob"), copied.bytes);
    if (found.newestPack != nullptr) {
      const auto live = std::erase_if(
          copied.hashes, [&](const blobring::Hash& hash) { return found.IsLive(hash); });
      text += fmt::format("; {} live, {} not live", live, copied.hashes.size());
    }
    if (!copied.leftBehind.empty())
      text += fmt::format("; {} left behind", copied.leftBehind.size());
    Tell("{}\n", text);
    return CheckStore(at.directory) == kSuccess && copied.complete;
  } catch (const Interrupted&) {
    throw Interrupted(
        "interrupted; {} holds what was committed until then, remove it before the next attempt",
        options.store);
  } catch (const std::exception& failure) {
    throw Fault(
        "salvage stopped early: {}; {} holds what was committed until then, remove it before the "
        "next attempt",
        Explain(failure), options.store);
  }
}

// Reads the packs and journals of the directories, without locking or changing them, and puts every
// blob that matches its hash into a new store, which is then checked. Prints a report to standard
// output. Returns kFault if anything is damaged or was not copied. Throws UsageError if the new
// store's directory is not empty or lies in one of the others; Fault if nothing was found, or the
// new store cannot take the blobs: what was committed by then stays in it.
ExitStatus Salvage(const SalvageOptions& options) {
  if (stdfs::exists(options.store) && !stdfs::is_empty(options.store))
    throw UsageError("{} exists and is not an empty directory; nothing was written", options.store);
  SalvagedFiles found = ScanAll(options);
  bool sound = found.missing.empty();
  bool isTorn = false;
  for (SalvagedFile& file : found.files) {
    PrintFile(file);
    sound = sound && file.isSound;
    isTorn = isTorn || file.lastIsTorn;
  }
  FindLive(found);
  for (const std::string& path : found.missing) Tell("{}: missing\n", path);
  sound = PrintMisplaced(found) && sound;
  if (found.newestPack != nullptr)
    Tell("newest generation: {}, sequence {}, {} found{}\n", found.newestPack->path,
         found.newestPack->sequence(), Count(LiveCount(found), "live blob"),
         found.newestIsSound ? "" : "; it is damaged, so blobs of older ones count as well");
  else
    Tell("cannot tell which blobs are live{}\n", options.liveOnly ? "; all are taken" : "");
  Json object = {{"type", "salvage"},         {"files", found.files.size()},
                 {"missing", found.missing},  {"newest_pack", nullptr},
                 {"dry_run", options.dryRun}, {"recovered", 0},
                 {"recovered_bytes", 0}};
  if (found.newestPack != nullptr) object["newest_pack"] = found.newestPack->path;
  if (!options.dryRun) sound = MakeStore(found, options, object) && sound;
  object["sound"] = sound;
  object["one_commit_incomplete"] = isTorn;
  PrintObject(object);
  Tell("{}\n", !sound   ? "damage was found, see above"
               : isTorn ? "one commit is incomplete, see above; no other damage was found"
                        : "no damage was found");
  return sound ? kSuccess : kFault;
}

}  // namespace

void AddSalvage(CommandLine& line) {
  auto [command, options] =
      line.Add(Group::kWork,
               {"salvage", "copy what can be read of damaged files into a new store", "",
                "blobring salvage /mnt/device /data/rescued"},
               Salvage);
  command
      .add_option("DIR", options.directory,
                  "where the packs and journals are; nothing in it is changed")
      ->required();
  command.add_option("OUT", options.store, "the new store; must not exist or be empty")->required();
  CommandLine::AddPackDirs(command, options.packDirs, "where packs are as well; may be repeated");
  command.add_flag("--live-only", options.liveOnly,
                   "leave deleted blobs behind, where that can be told");
  command.add_flag("-n,--dry-run", options.dryRun, "report what is there, make no store");
}

}  // namespace tool
