#include "tools/SalvageReport.h"

#include <fmt/format.h>

#include <algorithm>

#include "tools/Console.h"
#include "tools/Fd.h"

namespace tool {
namespace {

using Kind = SalvagedRecord::Kind;

// Of a file that was set aside, or was never in place, the header says nothing
// about the rest: a kept journal holds only a part.
bool HeaderCounts(const SalvagedFile& file) {
  return file.name.kept.empty() && !file.name.isNew && file.scan->sound();
}

std::string HeaderText(const SalvageScan& scan) {
  switch (scan.header.state) {
    case SlotFile::State::kMissing:
      return "gone";
    case SlotFile::State::kNew:
      return "new, no records";
    case SlotFile::State::kDamaged:
      return "damaged";
    case SlotFile::State::kSound:
      break;
  }
  return fmt::format("sound, sequence {}, {}, {} bytes in use", scan.header.header.sequence,
                     Count(scan.headerCount, "record"), scan.header.header.endOffset);
}

uint64_t CountOf(const SalvageScan& scan, Kind kind) {
  return static_cast<uint64_t>(std::count_if(scan.records.begin(), scan.records.end(),
                                             [&](const SalvagedRecord& record) { return record.kind == kind; }));
}

uint64_t WholeTransactions(const SalvageScan& scan) {
  return static_cast<uint64_t>(
      std::count_if(scan.records.begin(), scan.records.end(),
                    [](const SalvagedRecord& record) { return record.kind == Kind::kStart && record.whole; }));
}

// What lies behind the committed end is left over from earlier and no loss.
std::string RangeText(const SalvageFile::Range& range, const char* what, uint64_t committedEnd) {
  return fmt::format("  {:#x}-{:#x}: {}, {}{}\n", range.begin, range.end, Count(range.end - range.begin, "byte"), what,
                     range.begin >= committedEnd ? " (left over, not in use)" : "");
}

std::string RecordText(const SalvagedRecord& record) {
  return fmt::format("  {:#x}: blob {}, {}, {}{}\n", record.offset, record.hash.text(), Count(record.blobSize, "byte"),
                     record.kind == Kind::kCut ? "runs past the end of the file" : "does not match its hash",
                     record.committed ? "" : " (left over, not in use)");
}

std::string FileText(const SalvagedFile& file) {
  if (!file.scan) return fmt::format("{}\n  {}\n", file.path, file.failure);
  const SalvageScan& scan = *file.scan;
  std::string text =
      fmt::format("{}: {}\n  header: {}\n", file.path, Count(scan.header.size, "byte"), HeaderText(scan));
  text += fmt::format("  found: {}, {}, {}\n", Count(WholeTransactions(scan), "whole transaction"),
                      Count(CountOf(scan, Kind::kBlob), "blob"), Count(CountOf(scan, Kind::kDelete), "deletion"));
  const SalvageDamage damage = DamageOf(file);
  if (damage.brokenTransactions != 0)
    text += fmt::format("  {} in use and not whole\n", Count(damage.brokenTransactions, "transaction"));
  if (damage.header && scan.sound()) text += "  the header counts other records than are there\n";
  for (const SalvageFile::Range& range : scan.unreadable)
    text += RangeText(range, "cannot be read from the disk", scan.committedEnd);
  for (const SalvageFile::Range& range : scan.unaccounted) text += RangeText(range, "no record", scan.committedEnd);
  for (const SalvagedRecord& record : scan.records)
    if (record.kind == Kind::kBroken || record.kind == Kind::kCut) text += RecordText(record);
  if (scan.budgetSpent) text += "  too much looks like a record and is none: not every place was tried\n";
  return text;
}

}  // namespace

SalvageDamage DamageOf(const SalvagedFile& file) {
  SalvageDamage damage;
  if (!file.scan) {
    damage.unreadable = true;
    return damage;
  }
  const SalvageScan& scan = *file.scan;
  uint64_t counted = 0;
  for (const SalvagedRecord& record : scan.records) {
    if (!record.committed) continue;
    ++counted;
    if (record.kind == Kind::kStart && !record.whole) ++damage.brokenTransactions;
    if (record.kind == Kind::kBroken || record.kind == Kind::kCut) ++damage.brokenRecords;
  }
  for (const SalvageFile::Range& range : scan.unaccounted)
    if (range.begin < scan.committedEnd) damage.lostBytes += std::min(range.end, scan.committedEnd) - range.begin;
  damage.header = scan.header.state == SlotFile::State::kDamaged || (HeaderCounts(file) && counted != scan.headerCount);
  damage.unreadable = !scan.unreadable.empty();
  damage.budgetSpent = scan.budgetSpent;
  return damage;
}

bool PrintSalvagedFiles(const SalvageSet& set) {
  bool sound = set.missing().empty();
  for (const SalvagedFile& file : set.files()) {
    Print(FileText(file));
    sound = sound && !DamageOf(file).any();
  }
  for (const std::string& path : set.missing()) Print(fmt::format("{}: missing\n", path));
  return sound;
}

}  // namespace tool
