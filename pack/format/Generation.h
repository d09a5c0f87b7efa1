// Which files of a store belong together. Each repack writes a pack of the next sequence; its
// journal lies in the slot that the sequence selects. docs/format.md has the rules.
#pragma once

#include <cstdint>

#include "pack/format/Format.h"

namespace format {

// The slot of a generation's journal, and of its pack. The sequence is taken as unsigned.
constexpr std::uint32_t SlotOf(std::int32_t sequence, std::uint32_t slotCount) {
  return static_cast<std::uint32_t>(sequence) % slotCount;
}

// The order in which a load tries packs: the highest sequence first, equal ones by their slots.
constexpr bool IsNewer(std::int32_t a, std::int32_t b) {
  return a > b;
}

// Whether the pack of a slot was lost, where the newest of the others is of sequence `newest`. A
// pack that was cut to nothing, or whose header was lost, does not say that it was the newest. Its
// journal may: it takes the pack's sequence with a commit in the session of the repack, and keeps
// the mark of having been emptied by one otherwise. What such a journal holds rests on blobs that
// are not there. A journal without a header that can be believed tells only that there was a
// repack, and that only in a slot that begins with one.
constexpr bool IsPackLost(const FileHeader& pack, const FileHeader& journal, bool journalIsDamaged,
                          std::uint64_t slot, std::int32_t newest) {
  const bool isNew = pack.sequence == 0 && pack.recordCount == 0;
  if (journalIsDamaged) return isNew && slot != 0;
  return journal.recordCount != 0 &&
         (IsNewer(journal.sequence, newest) || (isNew && journal.sequence == kSequenceReset));
}

}  // namespace format
