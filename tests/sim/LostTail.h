// The other direction of what a power cut explorer shows: no end of a journal that was lost may
// pass for a commit that a power cut tore.
//
// A journal of many commits is cut, zeroed in whole sectors or anywhere, or changed in a bit, most
// often in its last transaction. The load must call that damage unless what is there fits the rules
// T1 to T5 (pack/TornCommit.h), which are told here from the bytes as they were before.
#pragma once

#include <cstdint>

namespace explore {

// Throws a Violation. Returns how many of the tails fit.
unsigned TryLostTails(std::uint64_t seed, unsigned tails);

}  // namespace explore
