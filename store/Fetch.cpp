// BlobController: fetching for callers that ask before they know, and what a store tells about
// itself.
#include <algorithm>
#include <bitset>
#include <cstring>
#include <string>
#include <utility>

#include "pack/BatchReader.h"
#include "platform/Failure.h"
#include "platform/Trace.h"
#include "store/BlobController.h"

namespace {

// Read while the lock is held; more is read in pieces, so that a change need not wait.
constexpr std::uint32_t kMostAtOnce = 1024 * 1024;

bool Matches(const Hash& hash, const unsigned char* data, std::uint32_t size) {
  MD5 md5;
  md5.update(data, size);
  return Finish(md5) == hash;
}

}  // namespace

// A blob that is read piece by piece, in memory that does not grow with it, wherever repacks take
// its record meanwhile.
class BlobController::Pieces {
 public:
  // Throws "Unable to allocate memory".
  Pieces(BlobController& controller, const char* operationName, const Hash& blobHash)
      : store(controller), operation(operationName), hash(blobHash) {
    {
      const std::shared_lock reading(store.readersLock);
      if (!Find()) return;
    }
    left = entry.size;
    buffer.resize(format::kStoreHeaderSize + std::min(left, kPieceSize));
  }

  // Null without one; Absent() then says why.
  const BlobFile::BlobFileEntry* Entry() const { return entry.file ? &entry : nullptr; }
  Fetched Absent() const { return absent; }

  // The next bytes, at most kPieceSize, which remain valid until the next call; none at the end.
  // The last ones come only if the whole blob matches its hash. Throws Failure when it does not,
  // and when it cannot be read. REQUIRES: there is an entry.
  std::span<const unsigned char> Next() {
    const std::uint32_t head = at == 0 ? format::kStoreHeaderSize : 0;
    const std::uint32_t size = std::min(left, kPieceSize);
    if (head + size == 0) return {};
    const BytesRead got = Read(head + size);
    if (!got.IsAll())
      throw File::ShortRead(head + size, static_cast<unsigned>(got.held.size()), got.code);
    if (head > 0 && !format::RecordHeader::IsOf(buffer.data(), hash.Bytes(), left))
      throw Failure(FailureCode::Damaged, "the record is not the blob's");
    at += head + size;
    left -= size;
    md5.update(buffer.data() + head, size);
    if (left == 0 && !(Finish(md5) == hash))
      throw Failure(FailureCode::Damaged, "the data does not match the hash");
    return got.held.subspan(head);
  }

 private:
  BytesRead Read(std::uint32_t size) {
    const std::shared_lock reading(store.readersLock);
    if (entry.file->Life() != life && !Find())
      throw Failure(absent == Fetched::NotFound ? FailureCode::NotFound : FailureCode::Closed,
                    "the blob was deleted, or the store closed, while it was read");
    return entry.file->file.readSome(entry.offset + at, buffer.data(), size);
  }

  // REQUIRES: the lock is held.
  bool Find() {
    const BlobFile::BlobFileEntry* found = store.FindLoaded(operation, hash, absent);
    if (found == nullptr) return false;
    entry = *found;
    life = entry.file->Life();
    return true;
  }

  BlobController& store;
  const char* operation;
  const Hash hash;
  BlobFile::BlobFileEntry entry;  // keeps the file open
  std::uint32_t life = 0;
  Fetched absent = Fetched::Failed;
  std::uint32_t at = 0;    // in the record
  std::uint32_t left = 0;  // of the blob
  MD5 md5;
  PooledBytes buffer;
};

// The entry of a blob; null where there is none, and `absent` then says why. REQUIRES: readersLock
// is held.
const BlobFile::BlobFileEntry* BlobController::FindLoaded(const char* operation, const Hash& hash,
                                                          Fetched& absent) const {
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
                                                   const BlobFile::BlobFileEntry& entry,
                                                   const std::exception& e) {
  {
    const std::shared_lock reading(readersLock);
    const auto blob = blobs.Find(entry.hash);
    if (blob != blobs.end() && blob->second.file == entry.file &&
        blob->second.offset == entry.offset)
      blob->second.valid = false;
  }
  trace::engine.CaughtErrorV(
      e, "%s",
      Text("BlobController::", operation, "() hash ", entry.hash.toString(), " file ",
           entry.file->path, " offset ", entry.offset, " size ", entry.size, ": ", e.what()));
  return Fetched::Failed;
}

// Whether the blob could be read and is right. No messages; unlocks once it has read.
bool BlobController::FetchAtOnce(const Hash& hash, const BlobFile::BlobFileEntry& entry,
                                 unsigned char* buffer,
                                 std::shared_lock<ReadersLock>& reading) const {
  // A small blob is read together with its record's head, in one call.
  constexpr std::uint32_t kMaxSmallBlob = 4096;
  unsigned char record[format::kStoreHeaderSize + kMaxSmallBlob];
  const std::uint32_t size = entry.size;
  const bool isSmall = size <= kMaxSmallBlob;
  const auto readsAll = [&](std::uint32_t at, unsigned char* bytes, std::uint32_t wanted) {
    return entry.file->file.readSome(entry.offset + at, bytes, wanted).IsAll();
  };
  const bool isThere = readsAll(0, record, format::kStoreHeaderSize + (isSmall ? size : 0)) &&
                       (isSmall || readsAll(format::kStoreHeaderSize, buffer, size));
  reading.unlock();
  const unsigned char* data = isSmall ? record + format::kStoreHeaderSize : buffer;
  if (!isThere || !format::RecordHeader::IsOf(record, hash.Bytes(), size) ||
      !Matches(hash, data, size))
    return false;
  // Not memcpy, of which g++ 12 makes an instruction (rep movs) that takes 60 ns longer.
  if (isSmall && size > 0) std::memmove(buffer, data, size);
  return true;
}

// The same for a large one, piece by piece.
bool BlobController::FetchInPieces(const Hash& hash, std::uint32_t size, unsigned char* buffer) {
  try {
    Pieces pieces(*this, "Fetch", hash);
    if (pieces.Entry() == nullptr || pieces.Entry()->size != size) return false;
    for (auto piece = pieces.Next(); !piece.empty(); piece = pieces.Next())
      buffer = std::copy(piece.begin(), piece.end(), buffer);
    return true;
  } catch (const Failure&) {
    return false;
  }
}

BlobController::Fetched BlobController::Fetch(const Hash& hash, unsigned char* buffer,
                                              std::uint32_t capacity, std::uint32_t& size) {
  std::shared_lock reading(readersLock);
  Fetched absent;
  const BlobFile::BlobFileEntry* found = FindLoaded("Fetch", hash, absent);
  if (found == nullptr) return absent;
  size = found->size;
  if (capacity < size) return Fetched::TooSmall;
  if (size <= kMostAtOnce) {
    if (FetchAtOnce(hash, *found, buffer, reading)) return Fetched::Read;
  } else {
    reading.unlock();
    if (FetchInPieces(hash, size, buffer)) return Fetched::Read;
  }
  // Something is wrong with it. Read again, for the words and the code.
  BlobFile::BlobFileEntry entry;
  try {
    reading.lock();
    found = FindLoaded("Fetch", hash, absent);
    if (found == nullptr) return absent;
    entry = *found;
    size = entry.size;
    if (capacity < size) return Fetched::TooSmall;
    BlobPair pair;
    pair.hash = hash;
    pair.buffer = {buffer, size};
    if (!entry.file->ReadBlob(pair, entry.offset, BlobPair::Patience::None))
      throw Failure(FailureCode::Damaged, "the record is not the blob's");
    entry.file->RequireBlob(pair, entry.offset, hash, size);
    return Fetched::Read;
  } catch (const std::exception& e) {
    reading.unlock();
    return Unreadable("Fetch", entry, e);
  }
}

BlobController::Fetched BlobController::Read(const Hash& hash, const PieceSink& sink) {
  Pieces pieces(*this, "Read", hash);
  if (pieces.Entry() == nullptr) return pieces.Absent();
  for (;;) {
    std::span<const unsigned char> piece;
    try {
      piece = pieces.Next();
    } catch (const std::exception& e) {
      return Unreadable("Read", *pieces.Entry(), e);
    }
    if (piece.empty()) return Fetched::Read;
    if (!sink.Takes(piece)) return Fetched::Stopped;
  }
}

void BlobController::FetchMany(const Hash* hashes, Wanted* wanted, std::size_t count) {
  struct Place {
    const BlobFile* file;
    std::uint32_t offset;
    std::size_t number;  // in wanted
  };
  Place places[kMostWanted];
  std::size_t found = 0;
  std::uint64_t bytes = 0;
  const auto find = [&](std::size_t i) -> const BlobFile::BlobFileEntry* {
    const auto blob = std::as_const(blobs).Find(hashes[i]);
    return blob != blobs.end() && blob->second.size <= wanted[i].capacity ? &blob->second : nullptr;
  };
  std::bitset<kMostWanted> isAlone;  // to be fetched by itself
  std::shared_lock reading(readersLock);
  if (state == State::Loaded) blobs.Prefetch(hashes, count);
  for (std::size_t i = 0; i < count; ++i) {
    const BlobFile::BlobFileEntry* const entry = find(i);
    isAlone[i] = entry == nullptr;
    if (entry == nullptr) continue;
    places[found++] = {entry->file.get(), entry->offset, i};
    bytes += entry->size;
  }
  reading.unlock();
  std::sort(places, places + found, [](const Place& a, const Place& b) {
    return a.file != b.file ? a.file < b.file : a.offset < b.offset;
  });
  BatchReader batch(0, bytes, found);
  for (std::size_t first = 0; first < found;) {
    std::size_t numbers[kMostWanted];  // of what is in the batch
    batch.Clear();
    reading.lock();
    for (; first < found; ++first) {
      const std::size_t i = places[first].number;
      const BlobFile::BlobFileEntry* const entry = find(i);
      const bool isAdded = entry != nullptr && batch.Add(hashes[i], *entry);
      if (isAdded) numbers[batch.Count() - 1] = i;
      if (!isAdded && entry != nullptr && batch.Count() > 0) break;
      isAlone[i] = !isAdded;  // also one that no buffer holds: it goes straight to the caller's
    }
    batch.Read();
    reading.unlock();
    batch.Verify();
    for (std::size_t k = 0; k < batch.Count(); ++k) {
      Wanted& item = wanted[numbers[k]];
      isAlone[numbers[k]] = !batch.IsSound(k);
      if (!batch.IsSound(k)) continue;
      item.size = batch.SizeOf(k);
      item.result = Fetched::Read;
      if (item.size > 0) std::memcpy(item.buffer, batch.Data(k), item.size);
    }
  }
  for (std::size_t i = 0; i < count; ++i)
    if (isAlone[i])
      wanted[i].result = Fetch(hashes[i], wanted[i].buffer, wanted[i].capacity, wanted[i].size);
}

int BlobController::NextHashesAfter(const Hash* after, unsigned char (*next)[Hash::kSize],
                                    int capacity) const {
  const std::shared_lock reading(readersLock);
  if (!IsLoaded()) return -1;
  int count = 0;
  for (auto blob = after == nullptr ? blobs.begin() : blobs.After(*after);
       count < capacity && blob != blobs.end(); ++blob)
    std::memcpy(next[count++], blob->first.Bytes(), Hash::kSize);
  return count;
}

BlobController::Statistics BlobController::GetStatistics() const {
  const std::shared_lock reading(readersLock);
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
      .pendingCount = pendingCount,
      .packBytes = slots.CurPack() ? slots.CurPack()->header.endOffset : 0,
      .journalBytes = journalEnd,
      .repackedBytes = blobs.empty() ? format::kFileHeaderSize : RepackedSize(sizes),
  };
}
