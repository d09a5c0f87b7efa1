// The open stores of this process by index.
#pragma once

#include <boost/shared_ptr.hpp>

#include "platform/FailureText.h"
#include "store/BlobController.h"

namespace registry {

// Registers a store under the next index, which it returns.
int Add(const boost::shared_ptr<BlobController>& store);

// Begins a call on a store: what is traced from here on is the text of its
// last failure. The store of an index that is registered; otherwise null,
// after a warning that names the call.
BlobController* Find(const char* call, int index);

// Only finds the store; null when there is none.
BlobController* Lookup(int index);

// Begins a call that belongs to no store.
void NoStore();

// The text of the last failure: of a store, or the process's for an index
// that no store has.
trace::FailureText& Failures(int index);

void Remove(int index);

}  // namespace registry
