// BlobController: fetching for callers that ask before they know, and what a store tells about
// itself.
#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <utility>

#include "pack/BatchReader.h"
#include "pack/PieceReader.h"
#include "platform/Failure.h"
#include "platform/Trace.h"
#include "store/BlobController.h"

// The entry of a blob; null where there is none, and `absent` then says why.
BlobFile::BlobFileEntry* BlobController::FindLoaded(const char* operation, const Hash& hash,
                                                    Fetched& absent) {
  absent = Fetched::Failed;
  if (state != State::Loaded) {
    trace::engine.CaughtWarnV(Failure(FailureCode::Closed),
                              "BlobController::%s() the store is not loaded", operation);
    return nullptr;
  }
  absent = Fetched::NotFound;
  const auto found = blobs.Find(hash);
  return found == blobs.end() ? nullptr : &found->second;
}

BlobController::Fetched BlobController::Unreadable(const char* operation,
                                                   BlobFile::BlobFileEntry& entry,
                                                   const std::exception& e) {
  entry.valid = false;
  trace::engine.CaughtErrorV(
      e, "%s",
      Text("BlobController::", operation, "() hash ", entry.hash.toString(), " file ",
           entry.file->path, " offset ", entry.offset, " size ", entry.size, ": ", e.what()));
  return Fetched::Failed;
}

BlobController::Fetched BlobController::Fetch(const Hash& hash, unsigned char* buffer,
                                              std::uint32_t capacity, std::uint32_t& size) {
  Fetched absent;
  BlobFile::BlobFileEntry* const found = FindLoaded("Fetch", hash, absent);
  if (found == nullptr) return absent;
  BlobFile::BlobFileEntry& entry = *found;
  size = entry.size;
  if (capacity < size) return Fetched::TooSmall;
  BlobPair pair;
  pair.hash = hash;
  pair.buffer = {buffer, size};
  try {
    if (!entry.file->ReadBlob(pair, entry.offset, BlobPair::Patience::None))
      throw Failure(FailureCode::Damaged, "the record is not the blob's");
    entry.file->RequireBlob(pair, entry.offset, hash, size);
    return Fetched::Read;
  } catch (const std::exception& e) {
    return Unreadable("Fetch", entry, e);
  }
}

BlobController::Fetched BlobController::Read(const Hash& hash, const PieceSink& sink) {
  Fetched absent;
  BlobFile::BlobFileEntry* const entry = FindLoaded("Read", hash, absent);
  if (entry == nullptr) return absent;
  PieceReader reader(*entry->file, *entry);
  for (;;) {
    std::span<const unsigned char> piece;
    try {
      piece = reader.Next();
    } catch (const std::exception& e) {
      return Unreadable("Read", *entry, e);
    }
    if (piece.empty()) return Fetched::Read;
    if (!sink.Takes(piece)) return Fetched::Stopped;
  }
}

void BlobController::FetchMany(const Hash* hashes, Wanted* wanted, std::size_t count) {
  struct Place {
    const BlobFile::BlobFileEntry* entry;
    std::size_t number;  // in wanted
  };
  Place places[kMostWanted];
  std::size_t found = 0;
  std::uint64_t bytes = 0;
  if (state == State::Loaded) blobs.Prefetch(hashes, count);
  for (std::size_t i = 0; i < count; ++i) {
    const auto blob = std::as_const(blobs).Find(hashes[i]);
    const bool fits = blob != blobs.end() && blob->second.size <= wanted[i].capacity;
    if (!fits) wanted[i].result = Fetch(hashes[i], nullptr, wanted[i].capacity, wanted[i].size);
    if (!fits) continue;
    places[found++] = {&blob->second, i};
    bytes += blob->second.size;
  }
  std::sort(places, places + found, [](const Place& a, const Place& b) {
    return a.entry->file != b.entry->file ? a.entry->file < b.entry->file
                                          : a.entry->offset < b.entry->offset;
  });
  BatchReader batch(0, bytes, found);
  for (std::size_t first = 0; first < found;) {
    batch.Clear();
    std::size_t next = first;
    while (next < found && batch.Add(hashes[places[next].number], *places[next].entry)) ++next;
    batch.Verify();
    next = std::max(next, first + 1);  // one that no buffer holds goes straight to the caller's
    for (std::size_t i = 0; first < next; ++first, ++i) {
      const Hash& hash = hashes[places[first].number];
      Wanted& item = wanted[places[first].number];
      if (i < batch.Count() && batch.IsSound(i)) {
        item.size = places[first].entry->size;
        item.result = Fetched::Read;
        if (item.size > 0) std::memcpy(item.buffer, batch.Data(i), item.size);
      } else {
        item.result = Fetch(hash, item.buffer, item.capacity, item.size);
      }
    }
  }
}

int BlobController::NextHashesAfter(const Hash* after, unsigned char (*next)[Hash::kSize],
                                    int capacity) const {
  int count = 0;
  for (auto blob = after == nullptr ? blobs.begin() : blobs.After(*after);
       count < capacity && blob != blobs.end(); ++blob)
    std::memcpy(next[count++], blob->first.Bytes(), Hash::kSize);
  return count;
}

BlobController::Statistics BlobController::GetStatistics() const {
  const Sizes sizes = SizesOf();
  return {
      .loaded = state == State::Loaded,
      .inDoubt = slots.InDoubt(),
      .damaged = damaged,
      .readOnly = readOnly,
      .sequence = seq,
      .slotCount = slots.size(),
      .blobCount = blobs.size(),
      .liveBytes = sizes.total,
      .largestBlob = sizes.largest,
      .pendingCount = pending.size(),
      .packBytes = slots.CurPack() ? slots.CurPack()->header.endOffset : 0,
      .journalBytes = slots.CurJournal() ? slots.CurJournal()->header.endOffset : 0,
      .repackedBytes = blobs.empty() ? format::kFileHeaderSize : RepackedSize(sizes),
  };
}
