// Whole blocks of one message or of two, and the block that ends a message:
// what every digest is made of that is not computed in vector lanes.
// Blocks may lie at any address. state is A, B, C, D.
#pragma once

#include <cstddef>
#include <cstdint>

namespace md5 {

inline constexpr std::size_t kBlockSize = 64;
inline constexpr std::size_t kDigestSize = 16;

// Takes blockCount consecutive blocks into state.
void CompressOne(std::uint32_t* state, const std::uint8_t* blocks, std::size_t blockCount);

// Takes blockCount blocks into each of two states, in little more time than
// CompressOne takes for one of them. The states must not be the same.
void CompressTwo(std::uint32_t* first, const std::uint8_t* firstBlocks, std::uint32_t* second,
                 const std::uint8_t* secondBlocks, std::size_t blockCount);

// Completes a message's last blocks: tail has room for two and begins with the
// tailSize (below kBlockSize) bytes that fill no block. Puts the padding and
// bitCount (two words, low one first) behind them; gives the number of blocks.
std::size_t PadTail(std::uint8_t* tail, std::size_t tailSize, const std::uint32_t* bitCount);

// Writes wordCount words to out, little-endian on every host.
void Encode(std::uint8_t* out, const std::uint32_t* words, std::size_t wordCount);

}  // namespace md5
