// BlobController: fetching for callers that ask before they know, and what a
// store tells about itself.
#include <cstring>
#include <stdexcept>
#include <string>

#include "platform/Trace.h"
#include "store/BlobController.h"

namespace {

// Reads the record of an entry step by step, to say what is wrong with it.
// The buffer holds the data. Throws that; returns when it was a passing
// failure and the data is good.
void ReadCarefully(const Hash& hash, const BlobFile::BlobFileEntry& entry, unsigned char* buffer) {
  File& file = entry.file->file;
  unsigned char head[format::kStoreHeadSize];
  file.seek(entry.offset);
  file.read(reinterpret_cast<char*>(head), sizeof head);
  const std::int32_t op = format::OpHeader::Decode(head).op;
  if (op != format::kOpStore) throw std::runtime_error("the record is not a store but op " + std::to_string(op));
  Hash found;
  found.setHash(head + format::kOpHeaderSize);
  if (!(found == hash)) throw std::runtime_error("the record is of hash " + found.toString());
  const std::uint32_t size = format::Get32(head + format::kDeleteSize);
  if (size != entry.size) throw std::runtime_error("the record is of " + std::to_string(size) + " bytes");
  if (size > 0) file.read(reinterpret_cast<char*>(buffer), size);
  BlobPair pair;
  pair.hash = hash;
  pair.buffer = {buffer, size};
  if (!pair.isValid()) throw std::runtime_error("the data does not match the hash");
}

}  // namespace

BlobController::Fetched BlobController::Fetch(const Hash& hash, unsigned char* buffer, std::uint32_t capacity,
                                              std::uint32_t& size) {
  if (!loaded) {
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
  if (entry.file->GetBlobQuickly(pair, entry.offset)) return Fetched::Read;
  try {
    ReadCarefully(hash, entry, buffer);
    return Fetched::Read;
  } catch (const std::exception& e) {
    trace::engine.WriteErrorV("BlobController::Fetch() hash %s file %s offset %u size %u: %s", hash.toString().c_str(),
                              entry.file->path.c_str(), entry.offset, size, e.what());
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
  statistics.sequence = seq;
  statistics.slotCount = static_cast<std::uint32_t>(packFiles.size());
  statistics.blobCount = blobs.size();
  statistics.liveBytes = sizes.total;
  statistics.largestBlob = sizes.largest;
  statistics.pendingCount = pendingEntries.size();
  if (curPack) statistics.packBytes = curPack->header.endOffset;
  if (curJournal) statistics.journalBytes = curJournal->header.endOffset;
  statistics.repackedBytes = blobs.empty() ? std::uint64_t{format::kFileHeaderSize} : RepackedSize(sizes);
  return statistics;
}
