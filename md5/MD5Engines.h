// What computes whole blocks: general registers on every processor, and a
// vector unit where there is one. A lane is one of the messages that a vector
// unit digests at the same time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "md5/MD5.h"

namespace md5 {

inline constexpr std::size_t kBlockSize = 64;
inline constexpr std::uint32_t kInitialState[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};

// Adds blockCount consecutive blocks, at any address, to state (A, B, C, D).
void CompressOne(std::uint32_t* state, const std::uint8_t* blocks, std::size_t blockCount);

// The same for two messages, in little more time than CompressOne takes for one.
// REQUIRES: the states are different objects.
void CompressTwo(std::uint32_t* first, const std::uint8_t* firstBlocks, std::uint32_t* second,
                 const std::uint8_t* secondBlocks, std::size_t blockCount);

// Appends padding and bitCount (two words, low one first) to the tailSize bytes
// of a message that fill no block. Returns the number of blocks, 1 or 2.
// REQUIRES: tail has room for two blocks; tailSize < kBlockSize.
std::size_t PadTail(std::uint8_t* tail, std::size_t tailSize, const std::uint32_t* bitCount);

// Writes wordCount words to out, little-endian on every host.
void Encode(std::uint8_t* out, const std::uint32_t* words, std::size_t wordCount);

inline constexpr std::size_t kMaxLanes = 16;

struct LaneState {
  alignas(64) std::uint32_t state[4][kMaxLanes];  // A, B, C, D of each lane
  const std::uint8_t* next[kMaxLanes];            // the next block of each lane
};

struct LaneEngine {
  const char* name;
  std::size_t laneCount;    // at most kMaxLanes
  std::size_t fewestLanes;  // with fewer in use, CompressTwo is faster

  // Adds blockCount blocks to each of the first lanesInUse lanes, and leaves
  // next where it is. Reads as many blocks of the other lanes and leaves their
  // state undefined.
  void (*compress)(LaneState& lanes, std::size_t lanesInUse, std::size_t blockCount);
};

extern const LaneEngine kAvx2Engine;  // on x86-64
extern const LaneEngine kNeonEngine;  // on aarch64, little-endian

// The engine for this processor, or null if it has none.
const LaneEngine* FindLaneEngine();

// DigestMany() with a given engine. Null: general registers alone.
void DigestMany(const MD5Message* messages, std::size_t count, const LaneEngine* engine);

}  // namespace md5
