#include "store/PendingChanges.h"

#include <exception>

#include "platform/Trace.h"

namespace {

// Capacity kept after a commit; a larger list is freed.
constexpr std::size_t kKeptEntries = 4096;

}  // namespace

PendingChanges::PendingChanges() {
  pendingEntries.reserve(kReservedEntries);
}

const PendingChanges::Entry* PendingChanges::Find(const Hash& hash) const {
  const auto last = lastByHash.Find(hash);
  return last == lastByHash.end() ? nullptr : &last->second;
}

void PendingChanges::Expect(const Hash* hashes, std::size_t count) noexcept {
  lastByHash.Reserve(lastByHash.size() + count);
  lastByHash.Prefetch(hashes, count);
}

void PendingChanges::Clear() noexcept {
  pendingEntries.clear();
  lastByHash.Clear();
}

// A blob that is stored again takes the place of the one that was deleted before.
void PendingChanges::ApplyTo(BlobIndex& blobs) noexcept {
  const auto isStore = [](const Entry& entry) { return entry.op == format::kOpStore; };
  const auto stores = std::count_if(pendingEntries.begin(), pendingEntries.end(), isStore);
  blobs.Reserve(blobs.size() + static_cast<std::size_t>(stores));
  lastByHash.TakeAll([&blobs](BlobIndex::Handle change) {
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
  if (pendingEntries.capacity() > kKeptEntries) Shrink();
}

// Where there is no memory for the reserve, the next change asks for it again.
void PendingChanges::Shrink() noexcept {
  BlobFile::Entries().swap(pendingEntries);
  try {
    pendingEntries.reserve(kReservedEntries);
  } catch (const std::exception& e) {
    trace::engine.WriteWarnV("%s", e.what());
  }
}
