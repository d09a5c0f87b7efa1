#include "api/Registry.h"

#include <map>

namespace registry {

namespace {

// Made before the static objects of a program, which may open stores, and destroyed after them,
// with every store that is still in it.
__attribute__((init_priority(102))) std::map<int, Entry> storeRegistry;
int nextStoreIndex = 0;

}  // namespace

int Add(const boost::shared_ptr<BlobController>& store) {
  storeRegistry[nextStoreIndex].store = store;
  return nextStoreIndex++;
}

Entry* Find(int index) {
  const auto found = storeRegistry.find(index);
  return found == storeRegistry.end() ? nullptr : &found->second;
}

void Remove(int index) {
  storeRegistry.erase(index);
}

}  // namespace registry
