// Opening, loading, closing, transactions, upkeep: the calls that let what
// the store throws reach the caller.
#include <blobring/blobring.h>

#include "api/Arguments.h"
#include "api/Registry.h"

int cur = 0;

int BCInitialize(const char16_t* path) {
  constexpr int kTraceRing = 8;
  registry::NoStore();
  if (api::IsNull("BCInitialize", "path", path)) return -1;
  const std::string narrow = api::Narrow(path);
  GetTraceRingBuffer(kTraceRing, &g_BlobControllerRingBuffer);
  trace::WriteEvent(trace::kEventOpen, 0);
  RTTrace(0x0F000264);
  return registry::Add(MakePooled<BlobController>(narrow));
}

int BCAddPackDir(int index, const char16_t* dir) {
  BlobController* store = registry::Find("BCAddPackDir", index);
  if (store == nullptr || api::IsNull("BCAddPackDir", "dir", dir)) return 0;
  trace::WriteEvent(trace::kEventOpen, 0);
  RTTrace_1(0x0F000265, api::Word(index));
  store->AddPackDir(api::Narrow(dir));
  return 1;
}

int BCSetDamagePolicy(int index, int policy) {
  BlobController* store = registry::Find("BCSetDamagePolicy", index);
  if (store == nullptr) return 0;
  if (policy != BLOBRING_DAMAGE_ERASE && policy != BLOBRING_DAMAGE_KEEP) {
    trace::api.WriteWarnV("BCSetDamagePolicy: there is no policy = %d", policy);
    return 0;
  }
  store->SetDamagePolicy(policy == BLOBRING_DAMAGE_KEEP ? DamagePolicy::Keep : DamagePolicy::Erase);
  return 1;
}

int BCLoad(int index) {
  BlobController* store = registry::Find("BCLoad", index);
  if (store == nullptr) return 0;
  trace::WriteEvent(trace::kEventLoad, 0);
  RTTrace_1(0x2F000266, api::Word(index));
  const int result = store->Load();
  RTTrace_2(0x2F000267, api::Word(index), api::Word(result));
  return result;
}

int BCShutdown(int index, bool flag) {
  RTTrace_2(0x0F000283, api::Word(index), flag);
  trace::api.NoteWarnV("BCShutdown has been called index = %d", index);
  BlobController* store = registry::Find("BCShutdown", index);
  return store == nullptr ? 0 : store->Shutdown(flag);
}

int BCDisposeInt(int index) {
  registry::NoStore();  // it is about to be forgotten, what is said is not
  trace::api.NoteWarnV("BCDispose has been called index = %d", index);
  BlobController* store = registry::Lookup(index);
  if (store == nullptr) return 1;
  store->Shutdown(true);
  registry::Remove(index);
  return 1;
}

int BCDispose(int index) {
  trace::api.NoteWarnV("BCDispose with index = %d", index);
  return BCDisposeInt(index);
}

int BCStartTransaction(int index, const long long* transactionId) {
  BlobController* store = registry::Find("BCStartTransaction", index);
  if (store == nullptr || api::IsNull("BCStartTransaction", "transactionId", transactionId)) return 0;
  const long long id = *transactionId;
  trace::WriteEvent(trace::kEventStartTransaction, static_cast<std::uint32_t>(id));
  RTTrace_2(0x4F00027A, api::Word(index), static_cast<std::uint32_t>(id));
  return store->StartTransaction(id);
}

int BCEndTransaction(int index, const long long* transactionId) {
  BlobController* store = registry::Find("BCEndTransaction", index);
  if (store == nullptr || api::IsNull("BCEndTransaction", "transactionId", transactionId)) return 0;
  const long long id = *transactionId;
  trace::WriteEvent(trace::kEventEndTransaction, static_cast<std::uint32_t>(id));
  RTTrace_2(0x4F00027C, api::Word(index), static_cast<std::uint32_t>(id));
  return store->EndTransaction(id);
}

int BCCancelTransaction() {
  return 1;
}

int BCRepack(int index) {
  BlobController* store = registry::Find("BCRepack", index);
  if (store == nullptr) return 0;
  trace::WriteEvent(trace::kEventRepack, 0);
  RTTrace_1(0x2F000269, api::Word(index));
  const int result = store->Repack();
  RTTrace_2(0x2F00026A, api::Word(index), api::Word(result));
  return result;
}

int BCFsck(int index) {
  BlobController* store = registry::Find("BCFsck", index);
  if (store == nullptr) return 0;
  trace::api.NoteWarnV("BCFsck index = %d", index);
  return store->Fsck();
}

int BCCacheClear() {
  return 1;
}

int BCCacheStats() {
  return 1;
}
