#include "api/Registry.h"

#include <map>

#include "platform/Trace.h"

namespace registry {

namespace {

struct Registered {
  trace::FailureText failures;  // outlives the store, which may report to the end
  boost::shared_ptr<BlobController> store;
};

// Destroyed at unload with every store that is still in it.
std::map<int, Registered> storeRegistry;
int nextStoreIndex = 0;

}  // namespace

int Add(const boost::shared_ptr<BlobController>& store) {
  storeRegistry[nextStoreIndex].store = store;
  return nextStoreIndex++;
}

BlobController* Lookup(int index) {
  const auto found = storeRegistry.find(index);
  return found == storeRegistry.end() ? nullptr : found->second.store.get();
}

void NoStore() {
  trace::NoteInProcess();
}

trace::FailureText& Failures(int index) {
  const auto found = storeRegistry.find(index);
  return found == storeRegistry.end() ? trace::ProcessFailures() : found->second.failures;
}

BlobController* Find(const char* call, int index) {
  const auto found = storeRegistry.find(index);
  if (found == storeRegistry.end()) {
    NoStore();
    trace::api.WriteWarnV("%s: no store has the index = %d", call, index);
    return nullptr;
  }
  trace::NoteIn(found->second.failures);
  return found->second.store.get();
}

void Remove(int index) {
  storeRegistry.erase(index);
}

}  // namespace registry
