// Blocks in general registers, one message or two at a time, on any processor.
#include <bit>
#include <cstring>

#include "md5/MD5Blocks.h"
#include "md5/MD5Rounds.h"

namespace md5 {
namespace {

// An empty instruction that takes and returns its operand. It fixes the order of the sums and keeps
// the compiler from putting two messages into one slow vector. volatile only for g++, which is
// faster in the order of the source; clang is faster in its own.
MD5_INLINE std::uint32_t Pinned(std::uint32_t value) {
#ifdef __clang__
  asm("" : "+r"(value));
#else
  asm volatile("" : "+r"(value));
#endif
  return value;
}

std::uint32_t LittleEndian(std::uint32_t word) {
  return std::endian::native == std::endian::big ? __builtin_bswap32(word) : word;
}

struct Scalar {
  std::uint32_t value;

  MD5_INLINE Scalar operator+(const Scalar& o) const { return {Pinned(value + o.value)}; }
  MD5_INLINE Scalar operator+(const std::uint32_t& k) const { return {Pinned(value + k)}; }
  MD5_INLINE Scalar operator^(const Scalar& o) const { return {Pinned(value ^ o.value)}; }
  MD5_INLINE Scalar operator&(const Scalar& o) const { return {Pinned(value & o.value)}; }
  MD5_INLINE Scalar operator|(const Scalar& o) const { return {Pinned(value | o.value)}; }
  MD5_INLINE Scalar operator~() const { return {Pinned(~value)}; }
  template <int n>
  MD5_INLINE Scalar Rotate() const {
    return {Pinned(std::rotl(value, n))};
  }
};

struct Block {
  const std::uint8_t* bytes;

  MD5_INLINE void AddWordTo(Scalar& sum, int index) const {
    std::uint32_t word;
    std::memcpy(&word, bytes + 4 * index, sizeof(word));
    sum = sum + LittleEndian(word);
  }
};

struct BlockPair {
  Block first, second;

  MD5_INLINE void AddWordTo(Pair<Scalar>& sum, int index) const {
    first.AddWordTo(sum.first, index);
    second.AddWordTo(sum.second, index);
  }
};

MD5_INLINE void Store(std::uint32_t* state, Scalar a, Scalar b, Scalar c, Scalar d) {
  state[0] = a.value;
  state[1] = b.value;
  state[2] = c.value;
  state[3] = d.value;
}

}  // namespace

void CompressOne(std::uint32_t* state, const std::uint8_t* blocks, std::size_t blockCount) {
  Scalar a{state[0]}, b{state[1]}, c{state[2]}, d{state[3]};
  for (; blockCount != 0; --blockCount, blocks += kBlockSize) Compress(a, b, c, d, Block{blocks});
  Store(state, a, b, c, d);
}

void CompressTwo(std::uint32_t* first, const std::uint8_t* firstBlocks, std::uint32_t* second,
                 const std::uint8_t* secondBlocks, std::size_t blockCount) {
  Pair<Scalar> a{{first[0]}, {second[0]}}, b{{first[1]}, {second[1]}};
  Pair<Scalar> c{{first[2]}, {second[2]}}, d{{first[3]}, {second[3]}};
  for (; blockCount != 0; --blockCount, firstBlocks += kBlockSize, secondBlocks += kBlockSize) {
    Compress(a, b, c, d, BlockPair{{firstBlocks}, {secondBlocks}});
  }
  Store(first, a.first, b.first, c.first, d.first);
  Store(second, a.second, b.second, c.second, d.second);
}

std::size_t PadTail(std::uint8_t* tail, std::size_t tailSize, std::uint64_t bitCount) {
  const std::size_t blockCount = tailSize + 1 + sizeof(bitCount) <= kBlockSize ? 1 : 2;
  const std::size_t countOffset = blockCount * kBlockSize - sizeof(bitCount);
  tail[tailSize] = 0x80;
  std::memset(tail + tailSize + 1, 0, countOffset - tailSize - 1);
  const std::uint32_t words[2] = {static_cast<std::uint32_t>(bitCount),
                                  static_cast<std::uint32_t>(bitCount >> 32)};
  Encode(tail + countOffset, words, 2);
  return blockCount;
}

void Encode(std::uint8_t* out, const std::uint32_t* words, std::size_t wordCount) {
  for (std::size_t i = 0; i < wordCount; ++i) {
    const std::uint32_t word = LittleEndian(words[i]);
    std::memcpy(out + sizeof(word) * i, &word, sizeof(word));
  }
}

}  // namespace md5
