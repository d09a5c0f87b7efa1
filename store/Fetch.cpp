// BlobController: fetching for callers that ask before they know, and what a
// store tells about itself.
#include <cstring>
#include <stdexcept>
#include <string>

#include "platform/Trace.h"
#include "store/BlobController.h"

namespace {

// What a store record's head says that it should not; empty when it is right.
std::string WrongWith(const unsigned char* head, const Hash& hash, std::uint32_t size) {
  const std::int32_t op = format::OpHeader::Decode(head).op;
  if (op != format::kOpStore) return "the record is not a store but op " + std::to_string(op);
  Hash found;
  found.setHash(const_cast<unsigned char*>(head) + format::kOpHeaderSize);  // only reads it
  if (!(found == hash)) return "the record is of hash " + found.toString();
  const std::uint32_t foundSize = format::Get32(head + format::kDeleteSize);
  if (foundSize != size) return "the record is of " + std::to_string(foundSize) + " bytes";
  return {};
}

// Reads the record of an entry once more, to say what is wrong with it; the
// buffer holds the data. Bytes that match the hash are the blob, whatever
// stands before them. Returns what is wrong with that, empty for nothing;
// throws when the data is not to be had.
std::string ReadCarefully(const Hash& hash, const BlobFile::BlobFileEntry& entry, unsigned char* buffer) {
  File& file = entry.file->file;
  unsigned char head[format::kStoreHeadSize];
  file.seek(entry.offset);
  file.read(reinterpret_cast<char*>(head), sizeof head);
  if (entry.size > 0) file.read(reinterpret_cast<char*>(buffer), entry.size);
  std::string wrong = WrongWith(head, hash, entry.size);
  BlobPair pair;
  pair.hash = hash;
  pair.buffer = {buffer, entry.size};
  if (!pair.isValid()) throw std::runtime_error(wrong.empty() ? "the data does not match the hash" : wrong);
  return wrong;
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
  const std::string place = "BlobController::Fetch() hash " + hash.toString() + " file " + entry.file->path +
                            " offset " + std::to_string(entry.offset) + " size " + std::to_string(size) + ": ";
  try {
    const std::string wrong = ReadCarefully(hash, entry, buffer);
    if (!wrong.empty()) trace::engine.WriteErrorV("%s%s, the data is good", place.c_str(), wrong.c_str());
    return Fetched::Read;
  } catch (const std::exception& e) {
    trace::engine.WriteErrorV("%s%s", place.c_str(), e.what());
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
