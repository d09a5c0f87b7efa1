// State, slots, single blobs, closing. Transactions, loading, repack and check have files of their
// own.
#include "store/BlobController.h"

#include <stdexcept>

#include "platform/Failure.h"
#include "platform/Trace.h"

BlobController::BlobController(std::string storeDirectory)
    : slots(std::move(storeDirectory)), openerProcess(GetCurrentProcessId()) {}

BlobController::~BlobController() = default;

void BlobController::SetReadOnly() {
  readOnly = true;
  RefuseChanges(FailureCode::ReadOnly, "the store is open for reading only");
}

bool BlobController::AddPackDir(std::string dir) {
  slots.Add(dir, readOnly);
  NoteFigures();
  return true;
}

void BlobController::RequireSlotsOpen() const {
  RequireOpener();
  if (state == State::Closed) throw Failure(refusal.code, refusal.reason);
  if (state != State::Attached)
    throw Failure(FailureCode::Refused, "the store is in use, its slots are fixed");
}

void BlobController::NoteFigures() {
  constexpr auto kRelaxed = std::memory_order_relaxed;
  journalEnd.store(slots.CurJournal() ? slots.CurJournal()->header.endOffset : 0, kRelaxed);
  pendingCount.store(pending.size(), kRelaxed);
}

std::int32_t BlobController::GetBlobSize(Hash const& hash) {
  const std::shared_lock reading(readersLock);
  const auto found = blobs.Find(hash);
  return found == blobs.end() ? -1 : static_cast<std::int32_t>(found->second.size);
}

bool BlobController::GetBlob(BlobPair& blob) {
  const auto found = blobs.Find(blob.hash);
  if (found == blobs.end()) return false;
  const BlobFile::BlobFileEntry entry =
      found->second;  // the index may be gone before the message is written
  const Hash wanted = blob.hash;
  const std::uint32_t given = blob.buffer.size;
  // Of a larger buffer only as much is used as the blob takes; a fetch says so.
  if (given > entry.size) blob.buffer.size = entry.size;
  try {
    if (entry.file->GetBlob(blob, entry.offset)) {
      entry.file->RequireBlob(blob, entry.offset, wanted, blob.buffer.size);
      return true;
    }
    trace::engine.WriteErrorV(
        "BlobController::GetBlob error in curPack.GetBlob file %s offset %d size %d hash %s",
        entry.file->path, entry.offset, entry.size, wanted.toString());
    found->second.valid = false;
    blob.buffer.size = given;
    return false;
  } catch (const std::exception& e) {
    trace::engine.CaughtErrorV(e,
                               "BlobController::GetBlob() threw an exception %s file=%s offset=%d",
                               e.what(), entry.file->path, entry.offset);
  }
  blob.hash = wanted;
  blob.buffer.size = given;
  CheckAfterFailure();
  Close();
  throw std::exception();
}

// No reader touches a file of a closed store.
bool BlobController::Close() {
  hashCursor.reset();
  RefuseChanges(FailureCode::Closed,
                "the store is closed, no change is accepted until it is opened again");
  {
    const std::lock_guard alone(readersLock);
    state = State::Closed;
    blobs.Clear();
    slots.EndLives();
  }
  if (!readOnly && GetCurrentProcessId() == openerProcess) slots.CutToRecords();
  NoteFigures();
  try {
    slots.Close();
  } catch (const std::exception& e) {
    trace::engine.CaughtWarnV(e, "BlobController::Close() threw an exception %s", e.what());
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
  const std::lock_guard alone(readersLock);
  return EraseFiles();
}

// REQUIRES: readersLock is held alone.
bool BlobController::EraseFiles() {
  hashCursor.reset();
  slots.EndLives();
  state = State::Attached;
  if (!slots.empty()) {
    state = State::Closed;
    RefuseChanges(
        FailureCode::Closed,
        "the files of the store were erased, no change is accepted until it is opened again");
  }
  try {
    slots.Erase();
  } catch (const std::runtime_error& e) {
    trace::engine.CaughtErrorV(e, "BlobController::DeleteFiles() threw an exception %s", e.what());
    return false;
  }
  trace::engine.WriteErrorV("BlobController::DeleteFiles() was successful.");
  return true;
}

void BlobController::ExpectChanges(const Hash* hashes, std::size_t count) noexcept {
  blobs.Prefetch(hashes, count);
  pending.Expect(hashes, count);
}

int BlobController::ResetHashCursor() {
  hashCursor = blobs.begin();
  return static_cast<int>(blobs.size());
}

bool BlobController::NextHash(unsigned char* hash) {
  if (!hashCursor || *hashCursor == blobs.end()) return false;
  std::memcpy(hash, (*hashCursor)->first.Bytes(), Hash::kSize);
  ++*hashCursor;
  return true;
}
