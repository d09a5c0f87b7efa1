#include "md5/MD5Block.h"

#include <bit>
#include <cstring>

#include "md5/MD5Rounds.h"

// An empty instruction that takes and returns its operand. It fixes the order
// of the sums, keeps two messages from being put into one slow vector, and
// needs to be volatile for g++ only: there the order of the source is faster
// than the compiler's own, with clang it is the other way round.
#ifdef __clang__
#define MD5_PIN(value) asm("" : "+r"(value))
#else
#define MD5_PIN(value) asm volatile("" : "+r"(value))
#endif

namespace md5 {
namespace {

// One message's word, in a general register.
struct Scalar {
  std::uint32_t value;

  MD5_INLINE void Add(const Scalar& other) { Add(other.value); }
  MD5_INLINE void Add(const std::uint32_t& k) {
    value += k;
    MD5_PIN(value);
  }
  MD5_INLINE void Xor(const Scalar& other) {
    value ^= other.value;
    MD5_PIN(value);
  }
  MD5_INLINE void And(const Scalar& other) {
    value &= other.value;
    MD5_PIN(value);
  }
  MD5_INLINE void Or(const Scalar& other) {
    value |= other.value;
    MD5_PIN(value);
  }
  MD5_INLINE void Not() {
    value = ~value;
    MD5_PIN(value);
  }
  template <int n>
  MD5_INLINE void Rotate() {
    value = std::rotl(value, n);
    MD5_PIN(value);
  }
};

struct Block {
  const std::uint8_t* bytes;

  MD5_INLINE void AddWordTo(Scalar& sum, int index) const {
    std::uint32_t word;
    std::memcpy(&word, bytes + 4 * index, sizeof(word));
    if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap32(word);
    sum.Add(word);
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

std::size_t PadTail(std::uint8_t* tail, std::size_t tailSize, const std::uint32_t* bitCount) {
  constexpr std::size_t kCountSize = 8;
  const std::size_t blockCount = tailSize + 1 + kCountSize <= kBlockSize ? 1 : 2;
  const std::size_t countOffset = blockCount * kBlockSize - kCountSize;
  tail[tailSize] = 0x80;
  std::memset(tail + tailSize + 1, 0, countOffset - tailSize - 1);
  Encode(tail + countOffset, bitCount, 2);
  return blockCount;
}

void Encode(std::uint8_t* out, const std::uint32_t* words, std::size_t wordCount) {
  for (std::size_t i = 0; i < wordCount; ++i) {
    std::uint32_t word = words[i];
    if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap32(word);
    std::memcpy(out + sizeof(word) * i, &word, sizeof(word));
  }
}

}  // namespace md5
