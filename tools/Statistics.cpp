#include "tools/Statistics.h"

#include <fmt/format.h>

#include "tools/Console.h"

namespace tool {
namespace {

// What the current pack and journal take right after a repack.
uint64_t RepackedSize(uint64_t blobCount, uint64_t liveBytes) {
  const uint64_t transaction = blobCount == 0 ? 0 : kTransactionOverhead;
  return 2 * kFileHeaderSize + transaction + blobCount * kStoreRecordOverhead + liveBytes;
}

std::string_view NameOf(SlotFile::State state) {
  switch (state) {
    case SlotFile::State::kMissing:
      return "missing";
    case SlotFile::State::kNew:
      return "new";
    case SlotFile::State::kSound:
      return "sound";
    case SlotFile::State::kDamaged:
      return "damaged";
  }
  return "";
}

std::string FileLine(const SlotFile& file, size_t slot, bool isCurrent) {
  return fmt::format("{:>4}{} {:>12} {:>12} {:>9} {:>8}  {}\n", slot, isCurrent ? '*' : ' ', file.size, file.endOffset,
                     file.sequence, NameOf(file.state), file.path);
}

}  // namespace

Statistics Statistics::Of(const Store& store) {
  Statistics result;
  for (const Hash& hash : store.List()) {
    ++result.blobCount;
    result.liveBytes += store.SizeOf(hash).value_or(0);
  }
  const SlotFiles files(store.layout());
  result.currentSlot = files.Current();
  if (result.currentSlot < 0) return result;
  const Slot& slot = files.slots().at(static_cast<size_t>(result.currentSlot));
  result.sequence = slot.pack.sequence;
  const uint64_t used = slot.pack.endOffset + slot.journal.endOffset;
  const uint64_t needed = RepackedSize(result.blobCount, result.liveBytes);
  result.deadBytes = used > needed ? used - needed : 0;
  return result;
}

ExitStatus PrintStatistics(const StoreOptions& at) {
  const Store store(at);
  const Statistics statistics = Statistics::Of(store);
  if (store.damaged()) Say("current, sequence and dead are what the headers claim; a pack was passed over or cut");
  std::string text = fmt::format("slots     {}\ncurrent   {}\nsequence  {}\nblobs     {}\n", at.layout.slotCount(),
                                 statistics.currentSlot, statistics.sequence, statistics.blobCount);
  text += fmt::format("live      {} ({})\n", statistics.liveBytes, HumanSize(statistics.liveBytes));
  text += fmt::format("dead      {} ({})\n", statistics.deadBytes, HumanSize(statistics.deadBytes));
  text +=
      fmt::format("\n{:>4}  {:>12} {:>12} {:>9} {:>8}  {}\n", "slot", "size", "in use", "sequence", "header", "file");
  const SlotFiles files(at.layout);
  for (size_t slot = 0; slot < files.slots().size(); ++slot) {
    const bool isCurrent = static_cast<int>(slot) == statistics.currentSlot;
    text += FileLine(files.slots()[slot].pack, slot, isCurrent);
    text += FileLine(files.slots()[slot].journal, slot, isCurrent);
  }
  Print(text);
  return kSuccess;
}

}  // namespace tool
