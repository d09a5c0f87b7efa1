// BlobController: fetching for callers that ask before they know, and what a
// store tells about itself.
#include <cstring>
#include <string>

#include "platform/Failure.h"
#include "platform/Trace.h"
#include "store/BlobController.h"

BlobController::Fetched BlobController::Fetch(const Hash& hash, unsigned char* buffer,
                                              std::uint32_t capacity, std::uint32_t& size) {
  if (!loaded) {
    trace::NoteCause(Failure(FailureCode::Closed, ""));
    trace::engine.WriteWarnV("BlobController::Fetch() the store is not loaded");
    return Fetched::Failed;
  }
  const auto found = blobs.Find(hash);
  if (found == blobs.end()) return Fetched::NotFound;
  const BlobFile::BlobFileEntry& entry = found->second;
  size = entry.size;
  if (capacity < size) return Fetched::TooSmall;
  BlobPair pair;
  pair.hash = hash;
  pair.buffer = {buffer, size};
  try {
    if (entry.file->ReadBlob(pair, entry.offset, BlobPair::Patience::None)) {
      entry.file->RequireBlob(pair, entry.offset, hash);
      if (pair.buffer.size == size) return Fetched::Read;
    }
    throw Failure(FailureCode::Damaged, "the record is not the blob's");
  } catch (const std::exception& e) {
    trace::NoteCause(e);
    const std::string text = "BlobController::Fetch() hash " + hash.toString() + " file " +
                             entry.file->path + " offset " + std::to_string(entry.offset) +
                             " size " + std::to_string(size) + ": " + e.what();
    trace::engine.WriteErrorV("%s", text.c_str());
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
  Statistics statistics{};
  statistics.loaded = loaded;
  statistics.inDoubt = InDoubt();
  statistics.damaged = damaged;
  statistics.readOnly = readOnly;
  statistics.sequence = seq;
  statistics.slotCount = static_cast<std::uint32_t>(packFiles.size());
  statistics.blobCount = blobs.size();
  statistics.liveBytes = sizes.total;
  statistics.largestBlob = sizes.largest;
  statistics.pendingCount = pendingEntries.size();
  if (curPack) statistics.packBytes = curPack->header.endOffset;
  if (curJournal) statistics.journalBytes = curJournal->header.endOffset;
  statistics.repackedBytes =
      blobs.empty() ? std::uint64_t{format::kFileHeaderSize} : RepackedSize(sizes);
  return statistics;
}
