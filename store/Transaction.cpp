// BlobController: the open transaction, from its first change to its commit.
#include <utility>

#include "platform/Failure.h"
#include "platform/Trace.h"
#include "store/BlobController.h"

void BlobController::RefuseChanges(FailureCode code, const char* reason) {
  // Says more than what comes later, until the store is closed.
  if (refusal.code == FailureCode::ReadOnly && code != FailureCode::Closed) return;
  refusal = {code, reason};
}

void BlobController::RequireOpener() const {
  if (GetCurrentProcessId() == openerProcess) return;
  throw Failure(FailureCode::Refused,
                "the store was opened by another process, which alone may change it");
}

void BlobController::RequireChangeable() const {
  if (refusal.code != FailureCode::None) throw Failure(refusal.code, refusal.reason);
  if (!slots.CurJournal()) throw Failure(FailureCode::Refused, "the store has no slot");
  RequireOpener();
  if (slots.InDoubt())
    throw Failure(FailureCode::InDoubt,
                  "a flush has failed, no change is accepted until the store is disposed of and "
                  "opened again");
}

// A commit before a load is lost if the load then chooses another slot, or cuts it off with what
// stands before it in the journal.
void BlobController::RequireFirstSlotCurrent() {
  if (state != State::Attached) return;
  BlobFile::Entries entries;
  bool isFirst = true;
  const auto newest = slots.ChooseNewest(
      [&](BlobFile& pack) { return std::exchange(isFirst, false) && LoadPack(pack, entries); });
  if (!newest || newest->sequence < 0 || newest->journalSlot != 0 ||
      !slots.CurJournal()->Load(entries) || !slots.CurJournal()->LoadedAll())
    throw Failure(FailureCode::Refused,
                  "the store is not loaded, and a load may not find what slot 0 takes");
  state = State::Changed;
}

// The record of a hash once the open transaction commits: the pending change, or what the index
// has. Null without either.
const BlobFile::BlobFileEntry* BlobController::Latest(Hash const& hash) const {
  if (const BlobFile::BlobFileEntry* last = pending.Find(hash)) {
    const std::int32_t op = last->op;
    if (op == format::kOpStore || op == format::kOpDelete) return last;
    trace::engine.WriteWarnV("BlobController::Store() unsupported operation op=%d", op);
  }
  const auto found = blobs.Find(hash);
  return found == blobs.end() ? nullptr : &found->second;
}

bool BlobController::BlobExists(Hash const& hash) const {
  const BlobFile::BlobFileEntry* latest = Latest(hash);
  return latest != nullptr && latest->op == format::kOpStore;
}

// Writes one change and adds it to the pending ones; write fills in the entry. Throws what writing
// throws; the transaction is then as before.
template <class Write>
bool BlobController::Change(Hash const& hash, Write write) {
  RequireFirstSlotCurrent();
  const bool isFirst = pending.empty();
  pending.Add(hash, [&](BlobFile::BlobFileEntry& entry) {
    try {
      if (isFirst) slots.CurJournal()->BeginTransaction(transactionId);
      entry.transactionId = transactionId;
      write(entry);
    } catch (...) {
      if (isFirst) slots.CurJournal()->AbandonTransaction();
      throw;
    }
  });
  NoteFigures();
  return true;
}

// isRight is asked before the place of a damaged blob is taken.
template <class IsRight, class Write>
bool BlobController::StoreWith(Hash const& hash, IsRight isRight, Write write) {
  try {
    RequireChangeable();
    const BlobFile::BlobFileEntry* present = Latest(hash);
    if (present != nullptr && present->op == format::kOpStore) {
      if (present->valid) return true;
      // What cannot be read now may be readable later. Only the blob itself takes its place.
      if (!isRight()) throw Failure(FailureCode::Argument, "the data does not match the hash");
    }
    return Change(hash, [&](BlobFile::BlobFileEntry& entry) {
      write(entry);
      entry.file = slots.CurJournal();
      entry.valid = true;
    });
  } catch (const std::exception& e) {
    RTTrace(0x0F000001);
    trace::engine.CaughtWarnV(e, "BlobController::Store() threw an exception %s", e.what());
    return false;
  }
}

bool BlobController::Store(BlobPair const& blob) {
  return StoreWith(
      blob.hash, [&] { return blob.isValid(); },
      [&](BlobFile::BlobFileEntry& entry) { slots.CurJournal()->Store(entry, blob); });
}

bool BlobController::Gather(BlobPair const& blob) {
  return StoreWith(
      blob.hash, [&] { return blob.isValid(); },
      [&](BlobFile::BlobFileEntry& entry) { slots.CurJournal()->Gather(entry, blob); });
}

// A blob that one piece holds is right before anything of it is written.
bool BlobController::StoreFrom(Hash const& hash, PieceSource& source) {
  const auto write = [&](BlobFile::BlobFileEntry& entry) {
    PooledBytes buffer(std::min(source.Left(), kPieceSize));
    if (source.Left() > buffer.size()) {
      slots.CurJournal()->StoreFrom(entry, hash, source, buffer);
      return;
    }
    source.Read(buffer);
    BlobPair blob;
    blob.buffer = {buffer.data(), static_cast<std::uint32_t>(buffer.size())};
    blob.hash = HashOf(blob.buffer.data, blob.buffer.size);
    if (!(blob.hash == hash))
      throw Failure(FailureCode::Argument, "the data does not match the hash");
    slots.CurJournal()->Gather(entry, blob);
  };
  return StoreWith(
      hash, [] { return true; }, write);
}

// Digests the records that wait beside the data.
Hash BlobController::HashOf(const unsigned char* data, std::uint32_t size) {
  MD5 key;
  if (slots.CurJournal()) {
    slots.CurJournal()->DigestBeside(key, data, size);
  } else {
    key.update(data, size);
  }
  return Finish(key);
}

bool BlobController::Put(const unsigned char* data, std::uint32_t size, Hash& hash) {
  hash = HashOf(data, size);
  BlobPair blob;
  blob.hash = hash;
  blob.buffer = {const_cast<unsigned char*>(data), size};  // only read
  return Gather(blob);
}

template <class Write>
bool BlobController::DeleteWith(Hash const& hash, Write write) {
  try {
    RequireChangeable();
    if (!BlobExists(hash)) return true;
    return Change(hash, write);
  } catch (const std::exception& e) {
    trace::engine.CaughtWarnV(e,
                              "BlobController::Delete threw an exception hash = %s exception = %s",
                              hash.toString(), e.what());
    return false;
  }
}

bool BlobController::Delete(Hash const& hash) {
  return DeleteWith(hash,
                    [&](BlobFile::BlobFileEntry& entry) { slots.CurJournal()->Delete(entry); });
}

bool BlobController::GatherDelete(Hash const& hash) {
  return DeleteWith(
      hash, [&](BlobFile::BlobFileEntry& entry) { slots.CurJournal()->GatherDelete(entry); });
}

// What was written lies past the journal's committed end, where the next transaction goes.
void BlobController::AbandonPending() {
  if (pending.empty()) return;
  if (slots.CurJournal()) slots.CurJournal()->AbandonTransaction();
  pending.Clear();
  NoteFigures();
}

bool BlobController::StartTransaction(long long id) {
  try {
    transactionId = id;
    AbandonPending();
    if (state == State::Closed || slots.InDoubt()) RequireChangeable();
    return true;
  } catch (const std::exception& e) {
    trace::engine.CaughtWarnV(
        e, "BlobController::StartTransaction() threw an exception transactionId %d exception %s",
        static_cast<int>(id), e.what());
    return false;
  }
}

bool BlobController::EndTransaction(long long id) {
  try {
    if (state == State::Closed) RequireChangeable();
    if (pending.empty()) return true;
    RequireChangeable();
    slots.CurJournal()->EndTransaction(id);
  } catch (const std::exception& e) {
    trace::engine.CaughtWarnV(
        e, "BlobController::EndTransaction() threw an exception transactionId %d exception %s",
        static_cast<int>(id), e.what());
    return false;
  }
  // Past the commit point: the changes are on disk and must take effect.
  const std::lock_guard alone(readersLock);
  hashCursor.reset();
  pending.ApplyTo(blobs);
  NoteFigures();
  return true;
}
