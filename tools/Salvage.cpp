// Copies blobs out of files on which a store can no longer be opened.
#include <filesystem>
#include <optional>
#include <regex>
#include <set>
#include <unordered_set>

#include "tools/BatchWriter.h"
#include "tools/Commands.h"
#include "tools/Interrupt.h"
#include "tools/SalvageScan.h"
#include "tools/look/Commands.h"

namespace tool {
namespace {

namespace stdfs = std::filesystem;
using Kind = SalvagedRecord::Kind;
using HashSet = std::unordered_set<blobring::Hash>;

struct SalvagedFile {
  std::string path;
  uint64_t slot;
  bool isPack;
  std::string suffix;  // ".kept-M", ".new" or nothing
  SalvageScan scan = {};
  std::string failure = {};  // why the file cannot be opened, or nothing

  int32_t sequence() const { return scan.head.header.sequence; }
};

struct SalvagedFiles {
  std::vector<SalvagedFile> files;
  std::vector<std::string> missing;  // named by the layout file
  const SalvagedFile* newestPack = nullptr;
  std::optional<HashSet> live;  // of the newest generation; nothing if that cannot be told
};

void ScanDirectory(const std::string& directory, std::vector<SalvagedFile>& files) {
  static const std::regex kForm(R"((0|[1-9][0-9]{0,8})\.(pak|jrn)(\.kept-[0-9]+|\.new)?)");
  std::error_code code;
  std::set<std::string> names;
  for (const auto& entry : stdfs::directory_iterator(directory, code))
    names.insert(entry.path().filename());
  if (code) throw Fault("cannot read the directory {}: {}", directory, code.message());
  for (const std::string& name : names) {
    std::smatch match;
    if (!std::regex_match(name, match, kForm)) continue;
    SalvagedFile& file = files.emplace_back(SalvagedFile{
        fmt::format("{}/{}", directory, name), std::stoul(match[1]), match[2] == "pak", match[3]});
    ThrowIfInterrupted();
    try {
      file.scan = Scan(file.path);
    } catch (const Fault& fault) {
      file.failure = fault.what();
    }
  }
}

// The newest generation is the pack of the highest sequence with the journal of the slot that the
// sequence selects. A damaged sequence must not make live blobs look deleted, so the pack's name
// and the journals have to agree with it. Only what the headers count is applied, and only
// deletions of complete transactions: a blob in doubt is live.
void FindLive(uint64_t slotCount, SalvagedFiles& found) {
  const SalvagedFile* pack = nullptr;
  for (const SalvagedFile& file : found.files) {
    if (!file.isPack || file.suffix == ".new" || !file.scan.IsSound() || file.sequence() < 0)
      continue;
    // Of two with the same sequence, the one that was not set aside.
    if (pack == nullptr ||
        std::pair(pack->sequence(), file.suffix) < std::pair(file.sequence(), pack->suffix))
      pack = &file;
  }
  if (pack == nullptr) return;
  const uint64_t slot = static_cast<uint64_t>(pack->sequence()) % slotCount;
  const SalvagedFile* journal = nullptr;
  bool agrees = pack->slot == slot || pack->sequence() == 0 || !pack->suffix.empty();
  for (const SalvagedFile& file : found.files) {
    if (file.isPack || file.suffix != pack->suffix || !file.failure.empty()) continue;
    if (file.slot == slot) journal = &file;
    const bool isOfPack =
        file.sequence() == pack->sequence() || file.sequence() == format::kSequenceReset;
    if (file.scan.IsSound() && !isOfPack)
      agrees = agrees && file.slot != slot && file.sequence() < pack->sequence();
  }
  if (journal == nullptr || !agrees) return;
  found.newestPack = pack;
  found.live.emplace();
  for (const SalvageScan* scan : {&pack->scan, &journal->scan}) {
    for (const SalvagedRecord& record : scan->records) {
      if (!scan->IsCommitted(record) && !scan->CountDiffers()) continue;
      if (record.kind == Kind::kBlob) found.live->insert(record.hash);
      if (record.kind == Kind::kDelete) found.live->erase(record.hash);
    }
  }
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
  uint64_t slotCount = 1;
  if (Layout::Exists(options.directory)) {
    try {
      const Layout layout = Layout::Read(options.directory);
      slotCount = layout.slotCount();
      for (size_t slot = 0; slot < slotCount; ++slot) {
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
    if (file.suffix.empty()) slotCount = std::max(slotCount, file.slot + 1);
  FindLive(slotCount, found);
  return found;
}

// Prints a paragraph about a file. Returns whether it is sound.
bool PrintFile(const SalvagedFile& file) {
  if (!file.failure.empty()) {
    Print("{}\n  {}\n", file.path, file.failure);
    return false;
  }
  const SalvageScan& scan = file.scan;
  const format::FileHeader& header = scan.head.header;
  bool sound = scan.head.state != FileHead::State::kDamaged;
  Print("{}: {}\n", file.path, Count(scan.head.size, "byte"));
  if (scan.IsSound())
    Print("  header: sound, sequence {}, {}, {} bytes in use\n", header.sequence,
          Count(header.recordCount, "record"), header.endOffset);
  else
    Print("  header: {}\n", sound ? "new, no records" : "damaged");
  Print("  found: {}, {}, {}\n", Count(scan.completeTransactions, "complete transaction"),
        Count(scan.blobs, "blob"), Count(scan.deletions, "deletion"));
  const auto note = [&](bool isCommitted, const std::string& line) {
    Print("  {}{}\n", line, isCommitted ? "" : " (leftover, not in use)");
    sound = sound && !isCommitted;
  };
  const auto noteRanges = [&](const Ranges& ranges, std::string_view what) {
    for (const auto& [begin, end] : ranges)
      note(begin < scan.committedEnd,
           fmt::format("{:#x}-{:#x}: {}, {}", begin, end, Count(end - begin, "byte"), what));
  };
  if (scan.incompleteTransactions != 0)
    note(true, Count(scan.incompleteTransactions, "incomplete transaction"));
  // Under the header of a journal that was set aside there is only a part of it.
  if (scan.CountDiffers() && file.suffix.empty())
    note(true, "the header counts other records than were found");
  noteRanges(scan.unreadable, "cannot be read from the disk");
  noteRanges(scan.noRecord, "no record");
  for (const SalvagedRecord& record : scan.records)
    if (record.kind == Kind::kBroken)
      note(scan.IsCommitted(record),
           fmt::format("{:#x}: blob {}, {}, {}", record.offset, record.hash.text(),
                       Count(record.blobSize, "byte"),
                       record.end() > scan.head.size ? "runs past the end of the file"
                                                     : "does not match its hash"));
  if (scan.stoppedProbing) note(true, "too much looks like a record: some places were not tried");
  return sound;
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
      if (liveOnly && found.live && !found.live->contains(record.hash)) {
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
bool MakeStore(const SalvagedFiles& found, const SalvageOptions& options) {
  const StoreOptions at = {options.store, 0, {}, false};
  try {
    Init(at);
    std::optional<OpenStore> open(std::in_place, at, Access::kChange);
    Copied copied = CopyBlobs(found, options.liveOnly, open->store);
    open.reset();
    std::string text =
        fmt::format("recovered: {}, {} bytes", Count(copied.hashes.size(), "blob"), copied.bytes);
    if (found.live) {
      const auto live = std::erase_if(
          copied.hashes, [&](const blobring::Hash& hash) { return found.live->contains(hash); });
      text += fmt::format("; {} live, {} not live", live, copied.hashes.size());
    }
    if (!copied.leftBehind.empty())
      text += fmt::format("; {} left behind", copied.leftBehind.size());
    Print("{}\n", text);
    return Check({at}) == kSuccess && copied.complete;
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

}  // namespace

ExitStatus Salvage(const SalvageOptions& options) {
  if (stdfs::exists(options.store) && !stdfs::is_empty(options.store))
    throw UsageError("{} exists and is not an empty directory; nothing was written", options.store);
  const SalvagedFiles found = ScanAll(options);
  bool sound = found.missing.empty();
  for (const SalvagedFile& file : found.files) sound = PrintFile(file) && sound;
  for (const std::string& path : found.missing) Print("{}: missing\n", path);
  if (found.live)
    Print("newest generation: {}, sequence {}, {} found\n", found.newestPack->path,
          found.newestPack->sequence(), Count(found.live->size(), "live blob"));
  else
    Print("cannot tell which blobs are live{}\n", options.liveOnly ? "; all are taken" : "");
  if (!options.dryRun) sound = MakeStore(found, options) && sound;
  Print("{}\n", sound ? "no damage was found" : "damage was found, see above");
  return sound ? kSuccess : kFault;
}

}  // namespace tool
