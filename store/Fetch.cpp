// BlobController: fetching for callers that ask before they know, and what a store tells about
// itself.
#include <cstring>
#include <string>

#include "platform/Failure.h"
#include "platform/Trace.h"
#include "store/BlobController.h"

BlobController::Fetched BlobController::Fetch(const Hash& hash, unsigned char* buffer,
                                              std::uint32_t capacity, std::uint32_t& size) {
  if (!loaded) {
    trace::engine.CaughtWarnV(Failure(FailureCode::Closed),
                              "BlobController::Fetch() the store is not loaded");
    return Fetched::Failed;
  }
  const auto found = blobs.Find(hash);
  if (found == blobs.end()) return Fetched::NotFound;
  BlobFile::BlobFileEntry& entry = found->second;
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
    entry.valid = false;
    trace::engine.CaughtErrorV(
        e, "%s",
        Text("BlobController::Fetch() hash ", hash.toString(), " file ", entry.file->path,
             " offset ", entry.offset, " size ", size, ": ", e.what()));
    return Fetched::Failed;
  }
}

bool BlobController::NextHashAfter(const Hash* after, unsigned char* next) const {
  const BlobIndex::const_iterator blob = after == nullptr ? blobs.begin() : blobs.After(*after);
  if (blob == blobs.end()) return false;
  std::memcpy(next, blob->first.Bytes(), Hash::kSize);
  return true;
}

BlobController::Statistics BlobController::GetStatistics() const {
  const Sizes sizes = SizesOf();
  return {
      .loaded = loaded,
      .inDoubt = InDoubt(),
      .damaged = damaged,
      .readOnly = readOnly,
      .sequence = seq,
      .slotCount = static_cast<std::uint32_t>(packFiles.size()),
      .blobCount = blobs.size(),
      .liveBytes = sizes.total,
      .largestBlob = sizes.largest,
      .pendingCount = pendingEntries.size(),
      .packBytes = curPack ? curPack->header.endOffset : 0,
      .journalBytes = curJournal ? curJournal->header.endOffset : 0,
      .repackedBytes = blobs.empty() ? format::kFileHeaderSize : RepackedSize(sizes),
  };
}
