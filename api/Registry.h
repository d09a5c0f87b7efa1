// The open stores of this process by index.
//
// Threads: any, at any time. One mutex guards the registry; it is held for a look-up, never for a
// call. A call enters a store and leaves it, and Take waits for the calls that are in it.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstdint>

#include "api/FailureText.h"
#include "store/BlobController.h"

namespace registry {

using StorePtr = boost::shared_ptr<BlobController>;

struct Entry {
  StorePtr store;
  api::FailureText failures;  // of the last call that failed, whichever thread's
  // Calls that have entered, and kTaken once no more may enter.
  static constexpr std::uint32_t kTaken = 0x80000000U;
  std::atomic<std::uint32_t> calls = 0;
  DWORD openerProcess = 0;
};

// Registers a store under the next index, which it returns.
int Add(const StorePtr& store);

// Null when no store has the index.
StorePtr Find(int index);

// Begins a call. The entry remains until Leave. Null when no store has the index.
Entry* Enter(int index);

// Ends it, and leaves the text of its failure, if it has one.
void Leave(Entry& entry, const api::FailureText* failures);

// Copies the text of the last failure. False when no store has the index.
bool GetFailures(int index, api::FailureText& failures);

// Removes a store once the calls in it have ended; no other enters. Null when no store has the
// index. A child of fork waits for none: the parent's other threads do not go on in it.
StorePtr Take(int index);

}  // namespace registry
