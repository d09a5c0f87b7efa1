// The changes of the open transaction: their entries in the order of the calls, and the last one of
// each hash. That one is kept as a node of an index: the commit moves it into the store's index,
// which needs no memory and cannot fail.
#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>

#include "pack/BlobFile.h"
#include "pack/Hash.h"
#include "store/BlobIndex.h"

class PendingChanges {
 public:
  using Entry = BlobFile::BlobFileEntry;

  // Reserves room for 50 changes. Throws "Unable to allocate memory".
  PendingChanges();

  bool empty() const { return pendingEntries.empty(); }
  std::size_t size() const { return pendingEntries.size(); }

  // The last change to a hash. Null if there is none.
  const Entry* Find(const Hash& hash) const;

  // Adds a change; write(entry) writes its record and fills in the entry. All memory is obtained
  // before, so that a record that has been written is also known. Throws what write throws, and
  // "Unable to allocate memory"; the changes are then as before.
  template <class Write>
  void Add(const Hash& hash, Write write) {
    if (pendingEntries.size() == pendingEntries.capacity())
      pendingEntries.reserve(std::max(kReservedEntries, 2 * pendingEntries.capacity()));
    bool isNew = false;
    const BlobIndex::iterator last = lastByHash.FindOrMake(hash, isNew);
    try {
      Entry entry;
      entry.hash = hash;
      write(entry);
      last->second = entry;
      pendingEntries.push_back(std::move(entry));
    } catch (...) {
      if (isNew) lastByHash.Erase(hash);
      throw;
    }
  }

  // Announces changes to these hashes, a few dozen at a time, to make their look-ups faster.
  void Expect(const Hash* hashes, std::size_t count) noexcept;

  void Clear() noexcept;

  // Carries the last change to each hash out in `blobs`, and clears.
  void ApplyTo(BlobIndex& blobs) noexcept;

 private:
  static constexpr std::size_t kReservedEntries = 50;

  void Shrink() noexcept;

  BlobFile::Entries pendingEntries;
  BlobIndex lastByHash;
};
