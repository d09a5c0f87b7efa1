// The open stores of this process by index.
#pragma once

#include <boost/shared_ptr.hpp>

#include "api/FailureText.h"
#include "store/BlobController.h"

namespace registry {

struct Entry {
  api::FailureText failures;  // outlives the store, which may report to the end
  boost::shared_ptr<BlobController> store;
};

// Registers a store under the next index, which it returns.
int Add(const boost::shared_ptr<BlobController>& store);

// Null when no store has the index. Valid until Remove.
Entry* Find(int index);

void Remove(int index);

}  // namespace registry
