// State, slots, single blobs, closing. Transactions, loading, repack and
// check have files of their own.
#include "store/BlobController.h"

#include <stdexcept>

#include "platform/Trace.h"

namespace {

// Changes that a transaction may hold before its list has to grow.
constexpr std::size_t kReservedEntries = 50;

}  // namespace

BlobController::BlobController(std::string storeDirectory) : path(std::move(storeDirectory)) {
  pendingEntries.reserve(kReservedEntries);
}

BlobController::~BlobController() = default;

bool BlobController::AddPackDir(std::string dir) {
  const std::string slot = std::to_string(packFiles.size());
  packFiles.reserve(packFiles.size() + 1);
  journalFiles.reserve(journalFiles.size() + 1);

  const BlobFilePtr pack = MakePooled<BlobFile>();
  pack->Init(dir + "/" + slot + ".pak", BlobFile::Pack, 0);
  const BlobFilePtr journal = MakePooled<BlobFile>();
  journal->Init(path + "/" + slot + ".jrn", BlobFile::Journal, 0);

  packFiles.push_back(pack);
  journalFiles.push_back(journal);
  if (!curPack) curPack = pack;
  if (!curJournal) curJournal = journal;
  return true;
}

std::int32_t BlobController::GetBlobSize(Hash const& hash) {
  const auto found = blobs.Find(hash);
  return found == blobs.end() ? -1 : static_cast<std::int32_t>(found->second.size);
}

// Reads with the size that the index knows, whatever the buffer could hold.
bool BlobController::ReadBlobQuickly(BlobPair& blob, BlobFile::BlobFileEntry const& entry) {
  if (blob.buffer.size < entry.size) return false;
  blob.buffer.size = entry.size;
  return entry.file->GetBlobQuickly(blob, entry.offset);
}

bool BlobController::ReadBlob(BlobPair& blob, BlobFile::BlobFileEntry const& entry) const {
  const std::uint32_t given = blob.buffer.size;
  if (ReadBlobQuickly(blob, entry)) return true;
  bool found = false;
  try {
    found = entry.file->GetBlob(blob, entry.offset);
  } catch (...) {
    blob.buffer.size = given;
    throw;
  }
  if (found) return true;
  blob.buffer.size = given;
  trace::engine.WriteErrorV("BlobController::GetBlob error in curPack.GetBlob file %s offset %d size %d hash %s",
                            entry.file->path.c_str(), static_cast<int>(entry.offset), static_cast<int>(entry.size),
                            blob.hash.toString().c_str());
  return false;
}

bool BlobController::GetBlob(BlobPair& blob) {
  const auto found = blobs.Find(blob.hash);
  if (found == blobs.end()) return false;
  const std::uint32_t given = blob.buffer.size;
  if (ReadBlobQuickly(blob, found->second)) return true;
  blob.buffer.size = given;
  const BlobFile::BlobFileEntry entry = found->second;  // the index may be gone before the message is written
  try {
    return ReadBlob(blob, entry);
  } catch (const std::exception& e) {
    trace::engine.WriteErrorV("BlobController::GetBlob() threw an exception %s file=%s offset=%d", e.what(),
                              entry.file->path.c_str(), static_cast<int>(entry.offset));
  }
  CheckAfterFailure();
  Close();
  throw std::exception();
}

bool BlobController::Close() {
  enumerating = false;
  loaded = false;
  blobs.Clear();
  try {
    for (const BlobFilePtr& pack : packFiles) pack->file.close();
    for (const BlobFilePtr& journal : journalFiles) journal->file.close();
  } catch (const std::exception& e) {
    trace::engine.WriteWarnV("BlobController::Close() threw an exception %s", e.what());
    return false;
  }
  return true;
}

bool BlobController::Shutdown(bool) {
  try {
    Close();
  } catch (const std::exception& e) {
    trace::engine.WriteWarnV("BlobController::Shutdown threw an exception msg=%s", e.what());
    return false;
  }
  return true;
}

bool BlobController::DeleteFiles() {
  enumerating = false;
  loaded = false;
  try {
    for (const BlobFilePtr& pack : packFiles) pack->file.erase();
    for (const BlobFilePtr& journal : journalFiles) journal->file.erase();
  } catch (const std::runtime_error& e) {
    trace::engine.WriteErrorV("BlobController::DeleteFiles() threw an exception %s", e.what());
    return false;
  }
  trace::engine.WriteErrorV("BlobController::DeleteFiles() was successful.");
  return true;
}

void BlobController::ExpectChanges(std::size_t count) noexcept {
  pendingByHash.Reserve(pendingByHash.size() + count);
}

void BlobController::Prefetch(const Hash* hashes, std::size_t count) const {
  for (std::size_t i = 0; i < count; ++i) {
    blobs.Prefetch(hashes[i]);
    pendingByHash.Prefetch(hashes[i]);
  }
  for (std::size_t i = 0; i < count; ++i) {
    blobs.PrefetchNode(hashes[i]);
    pendingByHash.PrefetchNode(hashes[i]);
  }
}

int BlobController::ResetHashCursor() {
  hashCursor = blobs.begin();
  enumerating = true;
  return static_cast<int>(blobs.size());
}

bool BlobController::NextHash(unsigned char* hash) {
  if (!enumerating || hashCursor == blobs.end()) return false;
  std::memcpy(hash, hashCursor->first.Bytes(), Hash::kSize);
  ++hashCursor;
  return true;
}
