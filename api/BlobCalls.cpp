// Single blobs, enumeration, digest: the calls that turn what the store
// throws into a failure value, a warning and a numeric record.
#include <blobring/blobring.h>

#include <cstring>
#include <exception>

#include "api/Arguments.h"
#include "api/Registry.h"
#include "md5/MD5.h"
#include "platform/Win32.h"

namespace {

// Whether a blob of these arguments can be stored; says why not.
bool IsSoundBlob(const char* call, const unsigned char* data, int size) {
  if (size < 0) {
    trace::api.WriteWarnV("%s: size = %d is negative", call, size);
    return false;
  }
  return size == 0 || !api::IsNull(call, "data", data);
}

}  // namespace

int BCStoreInt(int index, unsigned char* hash, unsigned char* data, int size) {
  BlobController* store = registry::Find("BCStore", index);
  if (store == nullptr || api::IsNull("BCStore", "hash", hash) || !IsSoundBlob("BCStore", data, size)) return 0;
  try {
    BlobPair pair;
    pair.hash.setHash(hash);
    pair.buffer = {data, api::Word(size)};
    trace::WriteHashEvent(trace::kEventStore, pair.hash.Bytes());
    return store->Store(pair);
  } catch (const std::exception& e) {
    RTTrace_1(0x0F000272, api::Word(index));
    api::Warn(std::string("BCStore threw an except exception:") + e.what() + " hash=" + api::ToHash(hash).toString());
    return 0;
  }
}

int BCStore(int index, unsigned char* hash, unsigned char* data, int size) {
  return BCStoreInt(index, hash, data, size);
}

int BCPut(int index, const unsigned char* data, int size, unsigned char* hashOut) {
  BlobController* store = registry::Find("BCPut", index);
  if (store == nullptr || !IsSoundBlob("BCPut", data, size) || api::IsNull("BCPut", "hashOut", hashOut)) return 0;
  try {
    Hash hash;
    const bool stored = store->Put(data, api::Word(size), hash);
    std::memcpy(hashOut, hash.Bytes(), Hash::kSize);
    trace::WriteHashEvent(trace::kEventStore, hashOut);
    return stored;
  } catch (const std::exception& e) {
    RTTrace_1(0x0F000272, api::Word(index));
    api::Warn(std::string("BCPut threw an exception:") + e.what());
    return 0;
  }
}

int BCPutMany(int index, BCBlob* blobs, int count) {
  BlobController* store = registry::Find("BCPutMany", index);
  if (store == nullptr || count <= 0 || api::IsNull("BCPutMany", "blobs", blobs)) return 0;
  constexpr int kGroup = 64;
  store->ExpectChanges(static_cast<std::size_t>(count));
  try {
    for (int first = 0; first < count; first += kGroup) {
      const int end = count - first < kGroup ? count : first + kGroup;
      MD5Message messages[kGroup];
      int sound = first;
      for (; sound < end && IsSoundBlob("BCPutMany", blobs[sound].data, blobs[sound].size); ++sound)
        messages[sound - first] = {blobs[sound].data, api::Word(blobs[sound].size), blobs[sound].hash};
      DigestMany(messages, static_cast<std::size_t>(sound - first));
      Hash hashes[kGroup];
      for (int i = first; i < sound; ++i) hashes[i - first].setHash(blobs[i].hash);
      store->Prefetch(hashes, static_cast<std::size_t>(sound - first));
      for (int i = first; i < sound; ++i) {
        BlobPair pair;
        pair.hash = hashes[i - first];
        pair.buffer = {const_cast<unsigned char*>(blobs[i].data), api::Word(blobs[i].size)};  // only read
        trace::WriteHashEvent(trace::kEventStore, blobs[i].hash);
        if (!store->Gather(pair)) return i;
      }
      if (sound < end) return sound;
    }
    return count;
  } catch (const std::exception& e) {
    api::Warn(std::string("BCPutMany threw an exception:") + e.what());
    return 0;
  }
}

int BCDeleteInt(int index, unsigned char* hash) {
  BlobController* store = registry::Find("BCDelete", index);
  if (store == nullptr || api::IsNull("BCDelete", "hash", hash)) return 0;
  try {
    const Hash key = api::ToHash(hash);
    trace::WriteHashEvent(trace::kEventDelete, key.Bytes());
    return store->Delete(key);
  } catch (const std::exception& e) {
    RTTrace_1(0x0F000274, api::Word(index));
    api::Warn(std::string("BCDelete threw an exception:") + e.what() + " hash =" + api::ToHash(hash).toString());
    return 0;
  }
}

int BCDelete(int index, unsigned char* hash) {
  return BCDeleteInt(index, hash);
}

int BCGetSizeInt(int index, unsigned char* hash) {
  constexpr int kFailed = -2;
  BlobController* store = registry::Find("BCGetSize", index);
  if (store == nullptr || api::IsNull("BCGetSize", "hash", hash)) return kFailed;
  try {
    const Hash key = api::ToHash(hash);
    trace::WriteHashEvent(trace::kEventGetSize, key.Bytes());
    return store->GetBlobSize(key);
  } catch (const std::exception& e) {
    RTTrace_1(0x0F000276, api::Word(index));
    api::Warn(std::string("BCGetSize threw an exception:") + e.what());
    return kFailed;
  }
}

int BCGetSize(int index, unsigned char* hash) {
  return BCGetSizeInt(index, hash);
}

int BCGetInt(int index, unsigned char* hash, unsigned char* buffer, int size) {
  constexpr int kFetched = 0;
  constexpr int kNotFound = 1;
  constexpr int kFailed = 2;
  BlobController* store = registry::Find("BCGet", index);
  if (store == nullptr || api::IsNull("BCGet", "hash", hash) || !IsSoundBlob("BCGet", buffer, size)) return kFailed;
  try {
    BlobPair pair;
    pair.hash.setHash(hash);
    pair.buffer = {buffer, api::Word(size)};
    trace::WriteHashEvent(trace::kEventGet, pair.hash.Bytes());
    const bool found = store->GetBlob(pair);
    if (found && pair.buffer.size == api::Word(size)) return kFetched;
    // A caller that asks for what is not there, or by another size, has lost
    // track of its store.
    api::Warn("GetBlob assert error: buffer size = " + std::to_string(pair.buffer.size) +
              " request size = " + std::to_string(size));
    store->Fsck();
    RaiseException(trace::kFaultCode, 0, 0, nullptr);
    return found ? kFetched : kNotFound;
  } catch (const std::exception& e) {
    RTTrace_1(0x0F000278, api::Word(index));
    api::Warn(std::string("BCGet threw an exception:") + e.what() + " hash=" + api::ToHash(hash).toString());
    return kFailed;
  }
}

int BCGet(int index, unsigned char* hash, unsigned char* buffer, int size) {
  return BCGetInt(index, hash, buffer, size);
}

int BCGetAllBlobHashesResetInt(int index) {
  BlobController* store = registry::Find("BCGetAllBlobHashesReset", index);
  if (store == nullptr) return 0;
  try {
    RTTrace_1(0x2F00027E, api::Word(index));
    trace::WriteEvent(trace::kEventEnumerateReset, 0);
    return store->ResetHashCursor();
  } catch (const std::exception& e) {
    RTTrace_1(0x0F00027F, api::Word(index));
    api::Warn(std::string("BCGetAllBlobHashesReset thew an exception:") + e.what());
    return 0;
  }
}

int BCGetAllBlobHashesReset(int index) {
  return BCGetAllBlobHashesResetInt(index);
}

int BCGetAllBlobHashes(int index, unsigned char* hash, int traceArg) {
  BlobController* store = registry::Find("BCGetAllBlobHashes", index);
  if (store == nullptr || api::IsNull("BCGetAllBlobHashes", "hash", hash)) return 0;
  try {
    RTTrace_2(0x4F000281, api::Word(index), api::Word(traceArg));
    trace::WriteEvent(trace::kEventEnumerate, 0);
    return store->NextHash(hash);
  } catch (const std::exception& e) {
    RTTrace_1(0x0F000282, api::Word(index));
    api::Warn(std::string("BCGetAllBlobHashes threw an exception") + e.what());
    return 0;
  }
}

int BCMD5ChkSumInt(const unsigned char* data, unsigned int length, unsigned char* digest) {
  registry::NoStore();
  if (api::IsNull("BCMD5ChkSum", "digest", digest)) return 0;
  if (length > 0 && api::IsNull("BCMD5ChkSum", "data", data)) return 0;
  try {
    MD5 md5;
    md5.update(data, length);
    md5.finalize();
    md5.raw_digest(digest);
    trace::WriteHashEvent(trace::kEventDigest, digest);
    return 1;
  } catch (const std::exception& e) {
    api::Warn(std::string("BCMD5ChkSum threw an exception:") + e.what());
    return 0;
  }
}

int BCMD5ChkSum(const unsigned char* data, unsigned int length, unsigned char* digest) {
  BCMD5ChkSumInt(data, length, digest);
  return 1;
}

int FilterException(int index, unsigned int code, _EXCEPTION_POINTERS* info) {
  registry::NoStore();
  if (code != EXCEPTION_ACCESS_VIOLATION) {
    trace::api.WriteWarnV("FilterException() except: unknown exception %d", static_cast<int>(code));
    RTTrace_2(0x0F000263, code, api::Word(index));
    return EXCEPTION_CONTINUE_SEARCH;
  }
  void* address =
      info == nullptr || info->ExceptionRecord == nullptr ? nullptr : info->ExceptionRecord->ExceptionAddress;
  trace::api.WriteWarnV("except: Access Violation %p", address);
  RTTrace_2(0x0F000262, static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(address)), api::Word(index));
  BlobController* store = registry::Find("FilterException", index);
  try {
    if (store != nullptr) store->Fsck();
  } catch (const std::exception& e) {
    api::Warn(e.what());  // a filter answers, whatever happens
  }
  return EXCEPTION_EXECUTE_HANDLER;
}
