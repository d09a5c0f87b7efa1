// The exported functions, in the order of the header. Those that read are in Reading.cpp.
#include <blobring/blobring.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>

#include "api/Call.h"
#include "fs/FileSystem.h"
#include "md5/MD5.h"
#include "platform/Trace.h"
#include "store/Opening.h"

using api::Call;
using api::Word;

int cur = 0;

const char* BCVersion() {
  return BLOBRING_VERSION;
}

// ---- Opening and closing ----

namespace {

constexpr std::size_t kFirstOptionsSize = offsetof(BCOptions, mustExist);
constexpr std::size_t kFirstStatisticsSize = offsetof(BCStatistics, damaged);

int Initialize(const std::string& path) {
  constexpr int kTraceRing = 8;
  std::uint32_t ring = 0;
  GetTraceRingBuffer(kTraceRing, &ring);
  std::atomic_ref(g_BlobControllerRingBuffer).store(ring, std::memory_order_relaxed);
  trace::WriteEvent(trace::kEventOpen, 0);
  RTTrace(0x0F000264);
  return registry::Add(MakePooled<BlobController>(FileSystem::AbsolutePath(path)));
}

void AddPackDir(BlobController& store, int index, const std::string& dir) {
  trace::WriteEvent(trace::kEventOpen, 0);
  RTTrace_1(0x0F000265, Word(index));
  store.AddPackDir(FileSystem::AbsolutePath(dir));
}

int Load(BlobController& store, int index) {
  trace::WriteEvent(trace::kEventLoad, 0);
  RTTrace_1(0x2F000266, Word(index));
  const int result = store.Load();
  RTTrace_2(0x2F000267, Word(index), Word(result));
  return result;
}

// False, after a message, for options that make no sense by themselves.
bool ReadOptions(Call& call, const BCOptions* given, BCOptions& options) {
  options = {};
  if (given == nullptr) return true;
  if (given->size < kFirstOptionsSize)
    return call.Refuse(FailureCode::Argument, "options->size = " + std::to_string(given->size) +
                                                  ", must be " + std::to_string(sizeof options));
  std::memcpy(&options, given, std::min<std::size_t>(given->size, sizeof options));
  if (options.packDirs == nullptr) return true;
  if (options.slotCount == 0) return call.Refuse(FailureCode::Argument, "packDirs needs slotCount");
  return std::all_of(options.packDirs, options.packDirs + options.slotCount,
                     [&call](const char* dir) { return call.Require("packDirs", dir); });
}

// Registers and loads. The index is set as soon as there is one.
bool Open(Call& call, const std::string& directory, const BCOptions& options,
          const std::vector<std::string>& packDirs, int& index) {
  index = Initialize(directory);
  BlobController& store = *call.Enter(index);
  store.LetReadersIn();
  if (options.readOnly != 0) store.SetReadOnly();
  for (const std::string& dir : packDirs) AddPackDir(store, index, dir);
  store.SetDamagePolicy(options.eraseDamaged != 0 ? DamagePolicy::Erase : DamagePolicy::Keep);
  store.SetProgress({options.progress, options.progressContext});
  return Load(store, index) == 1;
}

}  // namespace

int BCOpen(const char* directory, const BCOptions* given) {
  Call call("BCOpen");
  BCOptions options;
  if (!call.RequireOutermost() || !call.Require("directory", directory) ||
      !ReadOptions(call, given, options))
    return -1;
  std::vector<std::string> packDirs;
  const auto find = [&] {
    packDirs =
        SlotsToOpen(directory, {options.slotCount, options.packDirs, options.eraseDamaged != 0,
                                options.mustExist != 0, options.readOnly != 0});
    return 1;
  };
  if (call.Catch({"BCOpen: "}, 0, find) == 0) return -1;
  int index = -1;
  const auto open = [&] { return Open(call, directory, options, packDirs, index); };
  if (call.Catch({"BCOpen threw an exception:"}, 0, open) == 1) return index;
  if (index < 0) return -1;
  // The reason outlives the store.
  call.End();
  api::OfCallsWithoutStore() = api::OfCallsOnStores();
  registry::Take(index);
  return -1;
}

int BCSetProgress(int index, BCProgress* progress, void* context) {
  const Call call("BCSetProgress", index);
  if (!call) return 0;
  call.Store().SetProgress({progress, context});
  return 1;
}

namespace {

// Narrows a path. False, after a message, if it is null or a unit's low byte would end it.
bool Narrow(Call& call, const char* argument, const char16_t* given, std::string& path) {
  if (!call.Require(argument, given)) return false;
  path = Call::Pass([&] { return FileSystem::ConvertString(given); });
  return path.find('\0') == path.npos ||
         call.Refuse(FailureCode::Argument,
                     std::string(argument) + " has a unit whose low byte is 0");
}

}  // namespace

int BCInitialize(const char16_t* given) {
  Call call("BCInitialize");
  std::string path;
  if (!call.RequireOutermost() || !Narrow(call, "path", given, path)) return -1;
  return Call::Pass([&] { return Initialize(path); });
}

int BCAddPackDir(int index, const char16_t* given) {
  Call call("BCAddPackDir", index);
  std::string dir;
  if (!Narrow(call, "dir", given, dir)) return 0;
  const auto require = [&] { return call.Store().RequireSlotsOpen(), 1; };
  if (call.Catch({"BCAddPackDir: "}, 0, require) == 0) return 0;
  return Call::Pass([&] { return AddPackDir(call.Store(), index, dir), 1; });
}

int BCSetDamagePolicy(int index, int policy) {
  Call call("BCSetDamagePolicy", index);
  if (!call) return 0;
  if (policy != BLOBRING_DAMAGE_ERASE && policy != BLOBRING_DAMAGE_KEEP)
    return call.Refuse(FailureCode::Argument, "there is no policy = " + std::to_string(policy));
  call.Store().SetDamagePolicy(policy == BLOBRING_DAMAGE_KEEP ? DamagePolicy::Keep
                                                              : DamagePolicy::Erase);
  return 1;
}

int BCLoad(int index) {
  Call call("BCLoad", index);
  if (!call) return 0;
  return call.Catch({"BCLoad threw an exception:"}, 0, [&] { return Load(call.Store(), index); });
}

int BCShutdown(int index, bool flag) {
  const Call call("BCShutdown", index);
  if (!call) return 0;
  RTTrace_2(0x0F000283, Word(index), flag);
  trace::api.notes.WriteWarnV("BCShutdown has been called index = %d", index);
  return call.Store().Shutdown(flag);
}

namespace {

// Traced only after the nesting check: a sink that calls BCDispose would get these lines and call
// it again.
int Dispose(int index, bool isOuter) {
  Call call("BCDispose");
  if (!call.RequireOutermost()) return 0;
  if (isOuter) trace::api.notes.WriteWarnV("BCDispose with index = %d", index);
  trace::api.notes.WriteWarnV("BCDispose has been called index = %d", index);
  if (const registry::StorePtr store = registry::Take(index)) store->Shutdown(true);
  return 1;
}

}  // namespace

int BCDispose(int index) {
  return Dispose(index, true);
}

int BCDisposeInt(int index) {
  return Dispose(index, false);
}

// ---- Changing ----

int BCStartTransaction(int index, const long long* transactionId) {
  Call call("BCStartTransaction", index);
  if (!call.Require("transactionId", transactionId)) return 0;
  const auto low = static_cast<std::uint32_t>(*transactionId);
  trace::WriteEvent(trace::kEventStartTransaction, low);
  RTTrace_2(0x4F00027A, Word(index), low);
  return call.Store().StartTransaction(*transactionId);
}

int BCEndTransaction(int index, const long long* transactionId) {
  Call call("BCEndTransaction", index);
  if (!call.Require("transactionId", transactionId)) return 0;
  const auto low = static_cast<std::uint32_t>(*transactionId);
  trace::WriteEvent(trace::kEventEndTransaction, low);
  RTTrace_2(0x4F00027C, Word(index), low);
  return call.Store().EndTransaction(*transactionId);
}

int BCCancelTransaction() {
  return 1;
}

int BCAbandonTransaction(int index) {
  const Call call("BCAbandonTransaction", index);
  if (!call) return 0;
  call.Store().AbandonPending();
  return 1;
}

int BCStoreInt(int index, unsigned char* hash, unsigned char* data, int size) {
  Call call("BCStore", index);
  if (!call.Require("hash", hash) || !call.RequireBytes("data", data, "size", size)) return 0;
  return call.Catch({"BCStore threw an except exception:", 0x0F000272, hash}, 0, [&] {
    trace::WriteHashEvent(trace::kEventStore, hash);
    return call.Store().Store(api::PairOf(hash, data, size));
  });
}

int BCStore(int index, unsigned char* hash, unsigned char* data, int size) {
  return BCStoreInt(index, hash, data, size);
}

int BCPut(int index, const unsigned char* data, int size, unsigned char* hashOut) {
  Call call("BCPut", index);
  if (!call.RequireBytes("data", data, "size", size) || !call.Require("hashOut", hashOut)) return 0;
  return call.Catch({"BCPut threw an exception:", 0x0F000272}, 0, [&] {
    Hash hash;
    const bool stored = call.Store().Put(data, Word(size), hash);
    std::memcpy(hashOut, hash.Bytes(), Hash::kSize);
    trace::WriteHashEvent(trace::kEventStore, hashOut);
    return stored;
  });
}

int BCStoreFrom(int index, const unsigned char* hash, uint64_t size, BCSource* source,
                void* context) {
  Call call("BCStoreFrom", index);
  if (!call.Require("hash", hash) || !call.Require("source", reinterpret_cast<const void*>(source)))
    return 0;
  if (size > format::kMaxFileSize)
    return call.Refuse(FailureCode::Argument,
                       Text("size = ", size, " is more than a blob can have"));
  return call.Catch({"BCStoreFrom threw an exception:", 0x0F000272, hash}, 0, [&] {
    trace::WriteHashEvent(trace::kEventStore, hash);
    PieceSource from(source, context, static_cast<std::uint32_t>(size));
    return call.Store().StoreFrom(api::ToHash(hash), from);
  });
}

namespace {

constexpr int kPutGroup = 64;

// Digests and stores at most kPutGroup blobs. Returns how many from the first on.
int PutGroup(Call& call, BCBlob* blobs, int count) {
  MD5Message messages[kPutGroup];
  Hash hashes[kPutGroup];
  int valid = 0;
  for (; valid < count && call.RequireBytes("data", blobs[valid].data, "size", blobs[valid].size);
       ++valid)
    messages[valid] = {blobs[valid].data, Word(blobs[valid].size), blobs[valid].hash};
  DigestMany(messages, static_cast<std::size_t>(valid));
  for (int i = 0; i < valid; ++i) hashes[i].setHash(blobs[i].hash);
  call.Store().ExpectChanges(hashes, static_cast<std::size_t>(valid));
  for (int i = 0; i < valid; ++i) {
    trace::WriteHashEvent(trace::kEventStore, blobs[i].hash);
    if (!call.Store().Gather(api::PairOf(blobs[i].hash, blobs[i].data, blobs[i].size))) return i;
  }
  return valid;
}

}  // namespace

int BCPutMany(int index, BCBlob* blobs, int count) {
  Call call("BCPutMany", index);
  if (!call || count <= 0 || !call.Require("blobs", blobs)) return 0;
  int stored = 0;
  call.Catch({"BCPutMany threw an exception:", 0x0F000272}, 0, [&] {
    for (bool isWhole = true; isWhole && stored < count;) {
      const int size = std::min(kPutGroup, count - stored);
      const int done = PutGroup(call, blobs + stored, size);
      stored += done;
      isWhole = done == size;
    }
    return 1;
  });
  return stored;
}

int BCDeleteInt(int index, unsigned char* hash) {
  Call call("BCDelete", index);
  if (!call.Require("hash", hash)) return 0;
  return call.Catch({"BCDelete threw an exception:", 0x0F000274, hash, " hash ="}, 0, [&] {
    trace::WriteHashEvent(trace::kEventDelete, hash);
    return call.Store().Delete(api::ToHash(hash));
  });
}

int BCDelete(int index, unsigned char* hash) {
  return BCDeleteInt(index, hash);
}

int BCDeleteMany(int index, const unsigned char (*bytes)[BLOBRING_HASH_SIZE], int count) {
  Call call("BCDeleteMany", index);
  if (count <= 0 || !call.Require("hashes", bytes)) return 0;
  int deleted = 0;
  call.Catch({"BCDeleteMany threw an exception:", 0x0F000274}, 0, [&] {
    Hash hashes[kPutGroup];
    for (; deleted < count; ++deleted) {
      const int i = deleted % kPutGroup;
      const int ahead = i == 0 ? std::min(kPutGroup, count - deleted) : 0;
      for (int k = 0; k < ahead; ++k) hashes[k] = api::ToHash(bytes[deleted + k]);
      call.Store().ExpectChanges(hashes, static_cast<std::size_t>(ahead));
      trace::WriteHashEvent(trace::kEventDelete, hashes[i].Bytes());
      if (!call.Store().GatherDelete(hashes[i])) break;
    }
    return 1;
  });
  return deleted;
}

int BCRepack(int index) {
  const Call call("BCRepack", index);
  if (!call) return BLOBRING_NOT_REPACKED;
  trace::WriteEvent(trace::kEventRepack, 0);
  RTTrace_1(0x2F000269, Word(index));
  const int result = call.Store().Repack();
  RTTrace_2(0x2F00026A, Word(index), Word(result));
  return result;
}

// ---- State and errors ----

int BCGetStatistics(int index, BCStatistics* statistics) {
  Call call("BCGetStatistics", index);
  if (!call.Require("statistics", statistics)) return 0;
  const std::uint32_t size = statistics->size;
  if (size < kFirstStatisticsSize)
    return call.Refuse(FailureCode::Argument, "size = " + std::to_string(size) + ", must be " +
                                                  std::to_string(sizeof *statistics));
  const BlobController::Statistics of = call.Store().GetStatistics();
  const BCStatistics filled = {size,         of.loaded,       of.inDoubt,       of.sequence,
                               of.slotCount, of.largestBlob,  of.blobCount,     of.liveBytes,
                               of.packBytes, of.journalBytes, of.repackedBytes, of.pendingCount,
                               of.damaged,   of.readOnly};
  std::memset(statistics, 0, size);
  std::memcpy(statistics, &filled, std::min<std::size_t>(size, sizeof filled));
  return 1;
}

namespace {

// The thread's own before another's, also of a store that another thread has disposed of since.
api::FailureText FailuresOf(int index) {
  const api::FailureText& own = api::OfCallsOnStores();
  if (index >= 0 && own.Store() == index) return own;
  api::FailureText failures;
  return registry::GetFailures(index, failures) ? failures : api::OfCallsWithoutStore();
}

}  // namespace

int BCLastError(int index, char* buffer, int capacity) {
  const api::FailureText failures = FailuresOf(index);
  const std::string_view text = failures.Text();
  if (buffer != nullptr && capacity > 0) {
    const std::size_t length = std::min(text.size(), static_cast<std::size_t>(capacity) - 1);
    std::memcpy(buffer, text.data(), length);
    buffer[length] = '\0';
  }
  return static_cast<int>(text.size());
}

int BCLastErrorCode(int index) {
  return static_cast<int>(FailuresOf(index).Code());
}

const char* BCErrorText(int code) {
  return api::WordsFor(code);
}

int BCLastSystemError(int index) {
  return static_cast<int>(FailuresOf(index).System());
}

// ---- Beside the store ----

int BCMD5ChkSumInt(const unsigned char* data, unsigned int length, unsigned char* digest) {
  Call call("BCMD5ChkSum");
  if (!call.Require("digest", digest) || (length > 0 && !call.Require("data", data))) return 0;
  return call.Catch({"BCMD5ChkSum threw an exception:"}, 0, [&] {
    MD5 md5;
    md5.update(data, length);
    md5.finalize();
    md5.raw_digest(digest);
    trace::WriteHashEvent(trace::kEventDigest, digest);
    return 1;
  });
}

int BCMD5ChkSum(const unsigned char* data, unsigned int length, unsigned char* digest) {
  BCMD5ChkSumInt(data, length, digest);
  return 1;
}

int BCCacheClear() {
  return 1;
}

int BCCacheStats() {
  return 1;
}

int FilterException(int index, unsigned int code, _EXCEPTION_POINTERS* info) {
  Call call("FilterException");
  const registry::StorePtr store = registry::Find(index);
  call.Enter(index);
  if (code != EXCEPTION_ACCESS_VIOLATION) {
    trace::api.WriteWarnV("FilterException() except: unknown exception %d", code);
    RTTrace_2(0x0F000263, code, Word(index));
    return EXCEPTION_CONTINUE_SEARCH;
  }
  const void* address = info == nullptr || info->ExceptionRecord == nullptr
                            ? nullptr
                            : info->ExceptionRecord->ExceptionAddress;
  trace::api.WriteWarnV("except: Access Violation %p", address);
  RTTrace_2(0x0F000262, static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(address)),
            Word(index));
  call.Catch({""}, 0, [&] {
    return store ? store->Fsck()
                 : call.Refuse(FailureCode::NoStore,
                               "no store has the index = " + std::to_string(index));
  });
  call.EndOuterCalls();
  return EXCEPTION_EXECUTE_HANDLER;
}
