#include "api/Registry.h"

#include <map>

#include "platform/Trace.h"

namespace registry {

namespace {

// Destroyed at unload with every store that is still in it.
std::map<int, boost::shared_ptr<BlobController>> storeRegistry;
int nextStoreIndex = 0;

}  // namespace

int Add(const boost::shared_ptr<BlobController>& store) {
  storeRegistry[nextStoreIndex] = store;
  return nextStoreIndex++;
}

BlobController* Lookup(int index) {
  const auto found = storeRegistry.find(index);
  return found == storeRegistry.end() ? nullptr : found->second.get();
}

BlobController* Find(const char* call, int index) {
  BlobController* store = Lookup(index);
  if (store == nullptr) trace::api.WriteWarnV("%s: no store has the index = %d", call, index);
  return store;
}

void Remove(int index) {
  storeRegistry.erase(index);
}

}  // namespace registry
