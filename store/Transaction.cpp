// BlobController: the open transaction, from its first change to its commit.
#include <algorithm>
#include <stdexcept>

#include "platform/Trace.h"
#include "store/BlobController.h"

namespace {

constexpr std::size_t kReservedEntries = 50;
// A list that one large transaction made longer is not kept for small ones.
constexpr std::size_t kKeptEntries = 4096;

}  // namespace

bool BlobController::InDoubt() const {
  return (curJournal && curJournal->InDoubt()) || (curPack && curPack->InDoubt());
}

void BlobController::RequireChangeable() const {
  if (!curJournal) throw std::runtime_error("the store has no slot");
  if (loadFailed) throw std::runtime_error("the load has failed, no change is accepted until one succeeds");
  if (InDoubt())
    throw std::runtime_error(
        "a flush has failed, no change is accepted until the store is disposed of and opened anew");
}

bool BlobController::BlobExists(Hash const& hash) const {
  const auto pending = pendingByHash.Find(hash);
  if (pending != pendingByHash.end()) {
    const std::int32_t op = pending->second.op;
    if (op == format::kOpStore) return true;
    if (op == format::kOpDelete) return false;
    trace::engine.WriteWarnV("BlobController::Store() unsupported operation op=%d", op);
  }
  return blobs.Find(hash) != blobs.end();
}

// Writes one change and notes it as pending; write fills in the entry. All
// memory is obtained first, so that a record that has been written is also
// known. Throws what writing throws; the transaction is then as before.
template <class Write>
bool BlobController::Change(Hash const& hash, Write write) {
  RequireChangeable();
  if (pendingEntries.size() == pendingEntries.capacity())
    pendingEntries.reserve(std::max(kReservedEntries, 2 * pendingEntries.capacity()));
  bool isNew = false;
  const BlobIndex::iterator pending = pendingByHash.FindOrMake(hash, isNew);

  const bool isFirst = pendingEntries.empty();
  try {
    if (isFirst) curJournal->StartTransaction(transactionId);
    BlobFile::BlobFileEntry entry;
    entry.hash = hash;
    entry.transactionId = transactionId;
    write(entry);
    pending->second = entry;
    pendingEntries.push_back(std::move(entry));
    return true;
  } catch (...) {
    if (isNew) pendingByHash.Erase(pending);
    if (isFirst) curJournal->CancelTransaction();
    throw;
  }
}

bool BlobController::Store(BlobPair const& blob) {
  try {
    if (BlobExists(blob.hash)) return true;
    return Change(blob.hash, [&](BlobFile::BlobFileEntry& entry) {
      curJournal->Store(entry, blob);
      entry.file = curJournal;
      entry.valid = true;
    });
  } catch (const std::exception& e) {
    RTTrace(0x0F000001);
    trace::engine.WriteWarnV("BlobController::Store() threw an exception %s", e.what());
    return false;
  }
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
  blob.buffer = {const_cast<unsigned char*>(data), size};  // Store only reads it
  return Store(blob);
}

bool BlobController::Delete(Hash const& hash) {
  try {
    if (!BlobExists(hash)) return true;
    return Change(hash, [&](BlobFile::BlobFileEntry& entry) { curJournal->Delete(entry); });
  } catch (const std::exception& e) {
    trace::engine.WriteWarnV("BlobController::Delete threw an exception hash = %s exception = %s",
                             hash.toString().c_str(), e.what());
    return false;
  }
}

// What was written lies past the journal's committed end, where the next
// transaction goes.
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
    if (InDoubt()) RequireChangeable();
    return true;
  } catch (const std::exception& e) {
    trace::engine.WriteWarnV("BlobController::StartTransaction() threw an exception transactionId %d exception %s",
                             static_cast<int>(id), e.what());
    return false;
  }
}

bool BlobController::EndTransaction(long long id) {
  if (pendingEntries.empty()) return true;
  try {
    RequireChangeable();
    curJournal->EndTransaction(id);
  } catch (const std::exception& e) {
    trace::engine.WriteWarnV("BlobController::EndTransaction() threw an exception transactionId %d exception %s",
                             static_cast<int>(id), e.what());
    return false;
  }
  ApplyPending();
  return true;
}

// Past the commit point: the changes are on disk and must take effect. For
// each hash its last change decides; a blob that is stored anew takes the
// place of the one that was deleted before.
void BlobController::ApplyPending() noexcept {
  enumerating = false;
  const auto isStore = [](const BlobFile::BlobFileEntry& entry) { return entry.op == format::kOpStore; };
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

// Gives a long list's memory back and keeps the room that every transaction
// has; where there is none, the next change finds some.
void BlobController::ShrinkPending() noexcept {
  BlobFile::Entries().swap(pendingEntries);
  try {
    pendingEntries.reserve(kReservedEntries);
  } catch (const std::exception& e) {
    trace::engine.WriteWarnV("%s", e.what());
  }
}
