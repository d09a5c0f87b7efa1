// The open stores of this process by index.
#pragma once

#include <boost/shared_ptr.hpp>

#include "store/BlobController.h"

namespace registry {

// Registers a store under the next index, which it returns.
int Add(const boost::shared_ptr<BlobController>& store);

// The store of an index that is registered; otherwise null, after a warning
// that names the call.
BlobController* Find(const char* call, int index);

// As Find, without the warning.
BlobController* Lookup(int index);

void Remove(int index);

}  // namespace registry
