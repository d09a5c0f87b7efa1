#include "api/Registry.h"

#include <pthread.h>

#include <atomic>
#include <map>
#include <mutex>

namespace registry {

namespace {

// Made before the static objects of a program, which may open stores, and destroyed after them,
// with every store that is still in it.
__attribute__((init_priority(102))) std::map<int, Entry> storeRegistry;
int nextStoreIndex = 0;
constinit std::mutex mutex;  // nothing else is locked or called while it is held
constinit std::atomic<std::uint32_t> departures = 0;  // last calls in stores that are being taken

// The threads that could release the mutex exist in the parent alone.
[[maybe_unused]] const int toldOfForks =
    pthread_atfork([] { mutex.lock(); }, [] { mutex.unlock(); }, [] { mutex.unlock(); });

// REQUIRES: the mutex is held.
Entry* Untaken(int index) {
  const auto found = storeRegistry.find(index);
  return found == storeRegistry.end() || (found->second.calls & Entry::kTaken) != 0
             ? nullptr
             : &found->second;
}

}  // namespace

int Add(const StorePtr& store) {
  const std::lock_guard lock(mutex);
  Entry& entry = storeRegistry[nextStoreIndex];
  entry.store = store;
  entry.openerProcess = GetCurrentProcessId();
  return nextStoreIndex++;
}

StorePtr Find(int index) {
  const std::lock_guard lock(mutex);
  const Entry* entry = Untaken(index);
  return entry == nullptr ? nullptr : entry->store;
}

Entry* Enter(int index) {
  const std::lock_guard lock(mutex);
  Entry* entry = Untaken(index);
  if (entry != nullptr) ++entry->calls;
  return entry;
}

void Leave(Entry& entry, const api::FailureText* failures) {
  if (failures != nullptr) {
    const std::lock_guard lock(mutex);
    entry.failures = *failures;
  }
  if (--entry.calls != Entry::kTaken) return;
  // The entry may be gone already.
  ++departures;
  departures.notify_all();
}

bool GetFailures(int index, api::FailureText& failures) {
  const std::lock_guard lock(mutex);
  const Entry* entry = Untaken(index);
  if (entry != nullptr) failures = entry->failures;
  return entry != nullptr;
}

StorePtr Take(int index) {
  std::map<int, Entry>::node_type taken;  // destroyed without the mutex
  std::unique_lock lock(mutex);
  for (;;) {
    const auto found = storeRegistry.find(index);
    if (found == storeRegistry.end()) return nullptr;
    Entry& entry = found->second;
    const std::uint32_t before = departures;
    entry.calls |= Entry::kTaken;
    if (entry.calls == Entry::kTaken || entry.openerProcess != GetCurrentProcessId()) {
      taken = storeRegistry.extract(found);
      return taken.mapped().store;
    }
    lock.unlock();
    departures.wait(before);
    lock.lock();
  }
}

}  // namespace registry
