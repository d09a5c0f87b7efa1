// What computes whole blocks: general registers on every processor, and AVX2 where there is one. A
// lane is one of the messages that AVX2 digests at the same time.
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

// Appends padding and the bit count to the tailSize bytes of a message that fill no block. Returns
// the number of blocks, 1 or 2. REQUIRES: tail has room for two blocks; tailSize < kBlockSize.
std::size_t PadTail(std::uint8_t* tail, std::size_t tailSize, std::uint64_t bitCount);

// Writes the four words of a state to out, little-endian on every host.
void Encode(std::uint8_t* out, const std::uint32_t* words, std::size_t wordCount);

inline constexpr std::size_t kLanes = 16;

struct LaneState {
  alignas(64) std::uint32_t state[4][kLanes];  // A, B, C, D of each lane
  const std::uint8_t* next[kLanes];            // the next block of each lane
};

// Whether this processor has AVX2.
bool HasLanes();

// Adds blockCount blocks to each of the first lanesInUse lanes, and leaves next where it is. Reads
// as many blocks of the other lanes and leaves their state undefined. For fewer than three lanes,
// CompressTwo is faster. REQUIRES: HasLanes().
void CompressLanes(LaneState& lanes, std::size_t lanesInUse, std::size_t blockCount);

// DigestMany() with or without lanes.
void DigestMany(const MD5Message* messages, std::size_t count, bool inLanes);

}  // namespace md5
