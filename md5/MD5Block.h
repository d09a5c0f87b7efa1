// Whole blocks of one message or of two: the inner loop of every digest that
// is not computed in vector lanes. Blocks may lie at any address.
#pragma once

#include <cstddef>
#include <cstdint>

namespace md5 {

inline constexpr std::size_t kBlockSize = 64;
inline constexpr std::size_t kDigestSize = 16;

// Takes blockCount consecutive blocks into state (A, B, C, D).
void CompressOne(std::uint32_t* state, const std::uint8_t* blocks, std::size_t blockCount);

// Takes blockCount blocks into each of two states in little more time than
// CompressOne takes for one of them: a step of MD5 waits for the one before
// it, and the other message fills the wait.
void CompressTwo(std::uint32_t* first, const std::uint8_t* firstBlocks, std::uint32_t* second,
                 const std::uint8_t* secondBlocks, std::size_t blockCount);

}  // namespace md5
