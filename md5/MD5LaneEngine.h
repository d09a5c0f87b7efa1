// What DigestMany() and the vector units agree on. A lane is one message of
// those that a vector unit works on at the same time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "md5/MD5Lanes.h"

namespace md5 {

inline constexpr std::size_t kMaxLanes = 16;

struct LaneState {
  alignas(64) std::uint32_t state[4][kMaxLanes];  // A, B, C, D of each lane
  const std::uint8_t* next[kMaxLanes];            // where each lane's next block lies
};

struct LaneEngine {
  const char* name;
  std::size_t laneCount;    // at most kMaxLanes
  std::size_t fewestLanes;  // with fewer in use, two messages in general registers are faster

  // Takes blockCount blocks from each of the first lanesInUse lanes' next, which
  // stays. Reads the other lanes' too, as many blocks, and spoils their state.
  void (*compress)(LaneState& lanes, std::size_t lanesInUse, std::size_t blockCount);
};

extern const LaneEngine kAvx2Engine;  // in x86-64 builds
extern const LaneEngine kNeonEngine;  // in ARM builds that may use NEON

// The engine for this processor, or null if it has none.
const LaneEngine* FindLaneEngine();

// DigestMany() by one engine; null stands for general registers alone.
void DigestMany(const MD5Message* messages, std::size_t count, const LaneEngine* engine);

}  // namespace md5
