// BlobController: the open transaction, from its first change to its commit.
#include <algorithm>

#include "platform/Failure.h"
#include "platform/Trace.h"
#include "store/BlobController.h"

namespace {

constexpr std::size_t kReservedEntries = 50;
// A list that one large transaction made longer is not kept for small ones.
constexpr std::size_t kKeptEntries = 4096;

}  // namespace

bool BlobController::InDoubt() const {
  const auto isInDoubt = [](const BlobFilePtr& file) { return file->InDoubt(); };
  return std::any_of(packFiles.begin(), packFiles.end(), isInDoubt) ||
         std::any_of(journalFiles.begin(), journalFiles.end(), isInDoubt);
}

void BlobController::RefuseChanges(FailureCode code, const char* reason) {
  // Says more than what comes later, until the store is closed.
  if (refusal == FailureCode::ReadOnly && code != FailureCode::Closed) return;
  refusal = code;
  refusalReason = reason;
}

void BlobController::RequireOpener() const {
  if (GetCurrentProcessId() == openerProcess) return;
  throw Failure(FailureCode::Refused,
                "the store was opened by another process, which alone may change it");
}

void BlobController::RequireChangeable() const {
  if (refusal != FailureCode::None) throw Failure(refusal, refusalReason);
  if (!curJournal) throw Failure(FailureCode::Refused, "the store has no slot");
  RequireOpener();
  if (InDoubt())
    throw Failure(FailureCode::InDoubt,
                  "a flush has failed, no change is accepted until the store is disposed of and "
                  "opened again");
}

// A commit before a load is lost if the load then chooses another slot, or cuts it off with what
// stands before it in the journal.
void BlobController::RequireFirstSlotCurrent() {
  if (loaded || firstSlotIsCurrent) return;
  BlobFile& newest = **std::min_element(packFiles.begin(), packFiles.end(), sortBySequence);
  const std::int32_t sequence = newest.header.sequence;
  BlobFile::Entries entries;
  firstSlotIsCurrent =
      sequence >= 0 && static_cast<std::uint32_t>(sequence) % packFiles.size() == 0 &&
      LoadPack(newest, entries) && curJournal->Load(entries) && curJournal->LoadedAll();
  if (firstSlotIsCurrent) return;
  throw Failure(FailureCode::Refused,
                "the store is not loaded, and a load may not find what slot 0 takes");
}

// The record of a hash once the open transaction commits: the pending change, or what the index
// has. Null without either.
const BlobFile::BlobFileEntry* BlobController::Latest(Hash const& hash) const {
  const auto pending = pendingByHash.Find(hash);
  if (pending != pendingByHash.end()) {
    const std::int32_t op = pending->second.op;
    if (op == format::kOpStore || op == format::kOpDelete) return &pending->second;
    trace::engine.WriteWarnV("BlobController::Store() unsupported operation op=%d", op);
  }
  const auto found = blobs.Find(hash);
  return found == blobs.end() ? nullptr : &found->second;
}

bool BlobController::BlobExists(Hash const& hash) const {
  const BlobFile::BlobFileEntry* latest = Latest(hash);
  return latest != nullptr && latest->op == format::kOpStore;
}

// Writes one change and notes it as pending; write fills in the entry. All memory is obtained
// first, so that a record that has been written is also known. Throws what writing throws; the
// transaction is then as before.
template <class Write>
bool BlobController::Change(Hash const& hash, Write write) {
  RequireFirstSlotCurrent();
  if (pendingEntries.size() == pendingEntries.capacity())
    pendingEntries.reserve(std::max(kReservedEntries, 2 * pendingEntries.capacity()));
  bool isNew = false;
  const BlobIndex::iterator pending = pendingByHash.FindOrMake(hash, isNew);

  const bool isFirst = pendingEntries.empty();
  try {
    if (isFirst) curJournal->BeginTransaction(transactionId);
    BlobFile::BlobFileEntry entry;
    entry.hash = hash;
    entry.transactionId = transactionId;
    write(entry);
    pending->second = entry;
    pendingEntries.push_back(std::move(entry));
    return true;
  } catch (...) {
    if (isNew) pendingByHash.Erase(hash);
    if (isFirst) curJournal->CancelTransaction();
    throw;
  }
}

template <class Write>
bool BlobController::StoreWith(BlobPair const& blob, Write write) {
  try {
    RequireChangeable();
    const BlobFile::BlobFileEntry* present = Latest(blob.hash);
    if (present != nullptr && present->op == format::kOpStore) {
      if (present->valid) return true;
      // What cannot be read now may be readable later. Only the blob itself takes its place.
      if (!blob.isValid()) throw Failure(FailureCode::Argument, "the data does not match the hash");
    }
    return Change(blob.hash, [&](BlobFile::BlobFileEntry& entry) {
      write(entry);
      entry.file = curJournal;
      entry.valid = true;
    });
  } catch (const std::exception& e) {
    RTTrace(0x0F000001);
    trace::engine.CaughtWarnV(e, "BlobController::Store() threw an exception %s", e.what());
    return false;
  }
}

bool BlobController::Store(BlobPair const& blob) {
  return StoreWith(blob, [&](BlobFile::BlobFileEntry& entry) { curJournal->Store(entry, blob); });
}

bool BlobController::Gather(BlobPair const& blob) {
  return StoreWith(blob, [&](BlobFile::BlobFileEntry& entry) { curJournal->Gather(entry, blob); });
}

bool BlobController::Put(const unsigned char* data, std::uint32_t size, Hash& hash) {
  MD5 key;
  if (curJournal) {
    curJournal->DigestBeside(key, data, size);
  } else {
    key.update(data, size);
  }
  key.finalize();
  unsigned char raw[Hash::kSize];
  key.raw_digest(raw);
  hash.setHash(raw);

  BlobPair blob;
  blob.hash = hash;
  blob.buffer = {const_cast<unsigned char*>(data), size};  // only read
  return Gather(blob);
}

bool BlobController::Delete(Hash const& hash) {
  try {
    RequireChangeable();
    if (!BlobExists(hash)) return true;
    return Change(hash, [&](BlobFile::BlobFileEntry& entry) { curJournal->Delete(entry); });
  } catch (const std::exception& e) {
    trace::engine.CaughtWarnV(e,
                              "BlobController::Delete threw an exception hash = %s exception = %s",
                              hash.toString(), e.what());
    return false;
  }
}

// What was written lies past the journal's committed end, where the next transaction goes.
void BlobController::AbandonPending() {
  if (pendingEntries.empty()) return;
  if (curJournal) curJournal->CancelTransaction();
  pendingEntries.clear();
  pendingByHash.Clear();
}

bool BlobController::StartTransaction(long long id) {
  try {
    transactionId = id;
    AbandonPending();
    if (refusal == FailureCode::Closed || InDoubt()) RequireChangeable();
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
    if (refusal == FailureCode::Closed) RequireChangeable();
    if (pendingEntries.empty()) return true;
    RequireChangeable();
    curJournal->EndTransaction(id);
  } catch (const std::exception& e) {
    trace::engine.CaughtWarnV(
        e, "BlobController::EndTransaction() threw an exception transactionId %d exception %s",
        static_cast<int>(id), e.what());
    return false;
  }
  ApplyPending();
  return true;
}

// Past the commit point: the changes are on disk and must take effect. For each hash its last
// change decides; a blob that is stored again takes the place of the one that was deleted before.
void BlobController::ApplyPending() noexcept {
  enumerating = false;
  const auto isStore = [](const BlobFile::BlobFileEntry& entry) {
    return entry.op == format::kOpStore;
  };
  const auto stores = std::count_if(pendingEntries.begin(), pendingEntries.end(), isStore);
  blobs.Reserve(blobs.size() + static_cast<std::size_t>(stores));
  pendingByHash.TakeAll([this](BlobIndex::Handle change) {
    const std::int32_t op = change->blob.second.op;
    switch (op) {
      case format::kOpStore:
        blobs.Insert(std::move(change));
        break;
      case format::kOpDelete:
        blobs.Erase(change->blob.first);
        break;
      default:
        trace::engine.WriteErrorV("BlobController::EndTransaction unknown operation %d", op);
    }
  });
  pendingEntries.clear();
  if (pendingEntries.capacity() > kKeptEntries) ShrinkPending();
}

// Gives a long list's memory back and keeps the room that every transaction has; where there is
// none, the next change finds some.
void BlobController::ShrinkPending() noexcept {
  BlobFile::Entries().swap(pendingEntries);
  try {
    pendingEntries.reserve(kReservedEntries);
  } catch (const std::exception& e) {
    trace::engine.WriteWarnV("%s", e.what());
  }
}
