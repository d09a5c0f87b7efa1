// The exported functions that read a store.
#include <blobring/blobring.h>

#include <algorithm>
#include <cstddef>

#include "api/Call.h"
#include "platform/Trace.h"

using api::Call;
using api::Word;

int BCGetSizeInt(int index, unsigned char* hash) {
  Call call("BCGetSize", index);
  if (!call.Require("hash", hash)) return BLOBRING_SIZE_FAILED;
  return call.Catch({"BCGetSize threw an exception:", 0x0F000276}, BLOBRING_SIZE_FAILED, [&] {
    trace::WriteHashEvent(trace::kEventGetSize, hash);
    const int size = call.Store().GetBlobSize(api::ToHash(hash));
    call.NoteIfNotLoaded();
    return size;
  });
}

int BCGetSize(int index, unsigned char* hash) {
  return BCGetSizeInt(index, hash);
}

int BCGetInt(int index, unsigned char* hash, unsigned char* buffer, int size) {
  Call call("BCGet", index);
  if (!call.Require("hash", hash) || !call.RequireBytes("buffer", buffer, "size", size))
    return BLOBRING_FAILED;
  return call.Catch({"BCGet threw an exception:", 0x0F000278, hash}, BLOBRING_FAILED, [&] {
    BlobPair pair = api::PairOf(hash, buffer, size);
    trace::WriteHashEvent(trace::kEventGet, hash);
    const bool found = call.Store().GetBlob(pair);
    if (found && pair.buffer.size == Word(size)) return BLOBRING_FETCHED;
    // A caller that asks for what is not there, or by another size, has lost track of its store.
    call.NoteIfNotLoaded();
    trace::api.CaughtWarnV(
        Failure(found ? FailureCode::Argument : FailureCode::NotFound), "%s",
        Text("GetBlob assert error: buffer size = ", pair.buffer.size, " request size = ", size));
    call.Store().Fsck();
    call.End();
    RaiseException(trace::kFaultCode, 0, 0, nullptr);
    return found ? BLOBRING_FETCHED : BLOBRING_NOT_FOUND;
  });
}

int BCGet(int index, unsigned char* hash, unsigned char* buffer, int size) {
  return BCGetInt(index, hash, buffer, size);
}

namespace {

using Fetched = BlobController::Fetched;

static_assert(static_cast<int>(Fetched::Read) == BLOBRING_FETCHED &&
              static_cast<int>(Fetched::NotFound) == BLOBRING_NOT_FOUND &&
              static_cast<int>(Fetched::Failed) == BLOBRING_FAILED &&
              static_cast<int>(Fetched::TooSmall) == BLOBRING_TOO_SMALL &&
              static_cast<int>(Fetched::Stopped) == BLOBRING_STOPPED);

int SizeOf(Fetched fetched, std::uint32_t blobSize) {
  const bool isThere = fetched == Fetched::Read || fetched == Fetched::TooSmall;
  return isThere ? static_cast<int>(blobSize) : 0;
}

// Fetches at most kMostWanted blobs. Returns how many.
int FetchGroup(Call& call, BCFetchItem* items, std::size_t count) {
  Hash hashes[BlobController::kMostWanted];
  BlobController::Wanted wanted[BlobController::kMostWanted];
  BCFetchItem* valid[BlobController::kMostWanted];
  std::size_t n = 0;
  for (BCFetchItem* item = items; item != items + count; ++item) {
    trace::WriteHashEvent(trace::kEventGet, item->hash);
    if (!call.RequireBytes("buffer", item->buffer, "capacity", item->capacity)) continue;
    hashes[n] = api::ToHash(item->hash);
    wanted[n] = {item->buffer, Word(item->capacity)};
    valid[n++] = item;
  }
  call.Store().FetchMany(hashes, wanted, n);
  int fetched = 0;
  for (std::size_t i = 0; i < n; ++i) {
    valid[i]->size = SizeOf(wanted[i].result, wanted[i].size);
    valid[i]->result = static_cast<int>(wanted[i].result);
    fetched += valid[i]->result == BLOBRING_FETCHED ? 1 : 0;
  }
  return fetched;
}

}  // namespace

int BCFetch(int index, const unsigned char* hash, unsigned char* buffer, int capacity, int* size) {
  if (size != nullptr) *size = 0;
  Call call("BCFetch", index);
  if (!call.Require("hash", hash) || !call.Require("size", size) ||
      !call.RequireBytes("buffer", buffer, "capacity", capacity))
    return BLOBRING_FAILED;
  return call.Catch({"BCFetch threw an exception:"}, BLOBRING_FAILED, [&] {
    trace::WriteHashEvent(trace::kEventGet, hash);
    std::uint32_t blobSize = 0;
    const Fetched fetched = call.Store().Fetch(api::ToHash(hash), buffer, Word(capacity), blobSize);
    *size = SizeOf(fetched, blobSize);
    return static_cast<int>(fetched);
  });
}

int BCRead(int index, const unsigned char* hash, BCSink* sink, void* context) {
  Call call("BCRead", index);
  if (!call.Require("hash", hash) || !call.Require("sink", reinterpret_cast<const void*>(sink)))
    return BLOBRING_FAILED;
  return call.Catch({"BCRead threw an exception:"}, BLOBRING_FAILED, [&] {
    trace::WriteHashEvent(trace::kEventGet, hash);
    const Fetched fetched = call.Store().Read(api::ToHash(hash), {sink, context});
    if (fetched == Fetched::Stopped) call.Refuse(FailureCode::Refused, "the sink has stopped it");
    return static_cast<int>(fetched);
  });
}

int BCFetchMany(int index, BCFetchItem* items, int count) {
  const auto end = static_cast<std::size_t>(std::max(count, 0));
  for (std::size_t i = 0; items != nullptr && i < end; ++i) {
    items[i].size = 0;
    items[i].result = BLOBRING_FAILED;
  }
  Call call("BCFetchMany", index);
  if (end == 0 || !call.Require("items", items)) return 0;
  int fetched = 0;
  call.Catch({"BCFetchMany threw an exception:"}, 0, [&] {
    for (std::size_t at = 0; at < end; at += BlobController::kMostWanted)
      fetched += FetchGroup(call, items + at, std::min(BlobController::kMostWanted, end - at));
    return 1;
  });
  return fetched;
}

namespace {

using HashBytes = unsigned char[BLOBRING_HASH_SIZE];

int NextHashes(Call& call, const unsigned char* after, HashBytes* next, int capacity) {
  if (!call.Require("next", next)) return -1;
  const Hash from = after == nullptr ? Hash() : api::ToHash(after);
  const int count =
      call.Store().NextHashesAfter(after == nullptr ? nullptr : &from, next, capacity);
  if (count < 0) call.Refuse(FailureCode::Closed, "the store is not loaded");
  return count;
}

}  // namespace

int BCNextHash(int index, const unsigned char* after, unsigned char* next) {
  Call call("BCNextHash", index);
  return NextHashes(call, after, reinterpret_cast<HashBytes*>(next), 1);
}

int BCNextHashes(int index, const unsigned char* after, HashBytes* next, int capacity) {
  Call call("BCNextHashes", index);
  return NextHashes(call, after, next, capacity);
}

int BCGetAllBlobHashesResetInt(int index) {
  Call call("BCGetAllBlobHashesReset", index);
  if (!call) return 0;
  return call.Catch({"BCGetAllBlobHashesReset thew an exception:", 0x0F00027F}, 0, [&] {
    RTTrace_1(0x2F00027E, Word(index));
    trace::WriteEvent(trace::kEventEnumerateReset, 0);
    call.NoteIfNotLoaded();
    return call.Store().ResetHashCursor();
  });
}

int BCGetAllBlobHashesReset(int index) {
  return BCGetAllBlobHashesResetInt(index);
}

int BCGetAllBlobHashes(int index, unsigned char* hash, int traceArg) {
  Call call("BCGetAllBlobHashes", index);
  if (!call.Require("hash", hash)) return 0;
  return call.Catch({"BCGetAllBlobHashes threw an exception", 0x0F000282}, 0, [&] {
    RTTrace_2(0x4F000281, Word(index), Word(traceArg));
    trace::WriteEvent(trace::kEventEnumerate, 0);
    call.NoteIfNotLoaded();
    return call.Store().NextHash(hash);
  });
}

int BCFsck(int index) {
  const Call call("BCFsck", index);
  if (!call) return 0;
  trace::api.notes.WriteWarnV("BCFsck index = %d", index);
  call.NoteIfNotLoaded();
  return Call::Pass([&] { return call.Store().Fsck(); });
}

int BCCheck(int index) {
  Call call("BCCheck", index);
  if (!call) return BLOBRING_CHECK_FAILED;
  return call.Catch({"BCCheck threw an exception:"}, BLOBRING_CHECK_FAILED, [&] {
    using Checked = BlobController::Checked;
    static_assert(static_cast<int>(Checked::Stopped) == BLOBRING_CHECK_STOPPED &&
                  static_cast<int>(Checked::Faulty) == BLOBRING_CHECK_FAULTY &&
                  static_cast<int>(Checked::Sound) == BLOBRING_CHECK_SOUND);
    return static_cast<int>(call.Store().Check());
  });
}
