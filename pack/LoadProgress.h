// Tells the embedder how far the load of a file has got: once per MiB, and
// never less than before, though bytes may be looked at again.
#pragma once

#include <algorithm>
#include <cstdint>

#include "pack/ProgressCall.h"

class LoadProgress {
 public:
  // Null: tells nobody. endOffset is that of the header.
  LoadProgress(const ProgressCall* progressCall, std::uint32_t endOffset) : call(progressCall), expected(endOffset) {}

  // A load cannot be stopped: half an index would pass for a whole one.
  void Reached(std::uint32_t offset) {
    constexpr std::uint32_t kStep = 1024 * 1024;
    if (call == nullptr || offset < reported || offset - reported < kStep) return;
    reported = offset;
    call->Stops(ProgressCall::kLoad, offset, std::max(offset, expected));
  }

 private:
  const ProgressCall* const call;
  const std::uint32_t expected;
  std::uint32_t reported = 0;  // where the last report was made
};
