// Which files of a store belong together, and which are the newest: chosen here for a load and for
// a look at a store that is not opened. Each repack writes a pack of the next sequence; its
// journal lies in the slot that the sequence selects. docs/format.md has the rules.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>

#include "pack/format/Format.h"

namespace format {

// The slot of a generation's journal, and of its pack. The sequence is taken as unsigned.
constexpr std::uint32_t SlotOf(std::int32_t sequence, std::uint32_t slotCount) {
  return static_cast<std::uint32_t>(sequence) % slotCount;
}

// The order in which packs are tried: the highest sequence first, equal ones by their slots.
constexpr bool IsNewer(std::int32_t a, std::int32_t b) {
  return a > b;
}

struct Generation {
  std::int32_t sequence = kSequenceReset;
  std::uint32_t packSlot = 0;
  std::uint32_t journalSlot = 0;  // other than packSlot only if files have each other's names
};

// The generation that a store shows: that of the first pack that can be loaded. None if no pack
// can, or if that one was emptied by a repack that did not end: what it holds never counted.
//
// load(slot) tries a pack and returns its sequence, or nothing if it is damaged. newer(a, b)
// compares the packs of two slots. Slots: a vector of integers, in the caller's memory.
template <class Slots, class Newer, class Load>
std::optional<Generation> ChooseNewest(std::uint32_t slotCount, const Newer& newer,
                                       const Load& load) {
  Slots order;
  order.reserve(slotCount);
  for (std::uint32_t slot = 0; slot < slotCount; ++slot)
    order.insert(std::upper_bound(order.begin(), order.end(), slot, newer), slot);
  for (const std::uint32_t slot : order) {
    const std::optional<std::int32_t> sequence = load(slot);
    if (!sequence) continue;
    if (*sequence == kSequenceReset) return std::nullopt;
    return Generation{*sequence, slot, SlotOf(*sequence, slotCount)};
  }
  return std::nullopt;
}

// The headers of a slot's files.
struct SlotHeaders {
  const FileHeader& pack;
  const FileHeader& journal;
  bool packIsDamaged;
  bool journalIsDamaged;
};

// Whether no repacks can have left this pack beside one of sequence `newest`: the header of one of
// them is damaged, and the headers do not tell which.
constexpr bool IsImpossible(const FileHeader& pack, std::uint32_t slot, std::int32_t newest,
                            std::uint32_t slotCount) {
  if (pack.sequence == 0) return pack.recordCount != 0 && slot != 0;
  return pack.sequence < kSequenceReset ||
         (pack.sequence > 0 && std::int64_t{newest} - pack.sequence >= slotCount);
}

// Whether the pack of a slot was lost, where the newest of the others is of sequence `newest`. A
// pack that was cut to nothing, or whose header was lost, does not say that it was the newest. Its
// journal may: it takes the pack's sequence with a commit in the session of the repack, and keeps
// the mark of having been emptied by one otherwise. What such a journal holds rests on blobs that
// are not there. A journal with a damaged header tells only that there was a repack, and that only
// in a slot that begins with one.
constexpr bool IsPackLost(const SlotHeaders& files, std::uint32_t slot, std::int32_t newest,
                          std::uint32_t slotCount) {
  if (IsImpossible(files.pack, slot, newest, slotCount)) return true;
  const bool isNew = files.pack.sequence == 0 && files.pack.recordCount == 0;
  if (files.journalIsDamaged) return isNew && slot != 0;
  return files.journal.recordCount != 0 && (IsNewer(files.journal.sequence, newest) ||
                                            (isNew && files.journal.sequence == kSequenceReset));
}

// Calls report(slot) for each pack that is damaged or lost and may have been newer than the
// generation that is shown, and for the shown pack if it has a damaged header.
template <class HeadersOf, class Report>
void FindLost(const Generation& shown, std::uint32_t slotCount, const HeadersOf& headersOf,
              const Report& report) {
  for (std::uint32_t slot = 0; slot < slotCount; ++slot) {
    const SlotHeaders files = headersOf(slot);
    // Under another name, the pack of the journal is not lost.
    const bool isElsewhere = slot == shown.journalSlot && slot != shown.packSlot &&
                             !IsNewer(files.journal.sequence, shown.sequence);
    if (files.packIsDamaged || (!isElsewhere && IsPackLost(files, slot, shown.sequence, slotCount)))
      report(slot);
  }
}

}  // namespace format
