#include "md5/MD5Block.h"

#include <bit>
#include <cstring>

#include "md5/MD5Rounds.h"

namespace md5 {
namespace {

// Holds value in a register here and forbids to move a sum across this point.
MD5_INLINE void Pin(std::uint32_t& value) {
  asm("" : "+r"(value));
}

struct One {
  using Word = std::uint32_t;

  template <int shift>
  MD5_INLINE static void F(Word& a, Word b, Word c, Word d, Word x, std::uint32_t k) {
    a += x + k;
    Pin(a);
    a += d ^ (b & (c ^ d));
    a = b + std::rotl(a, shift);
  }
  template <int shift>
  MD5_INLINE static void G(Word& a, Word b, Word c, Word d, Word x, std::uint32_t k) {
    a += x + k;
    Pin(a);
    a += c & ~d;
    Pin(a);
    a += b & d;
    a = b + std::rotl(a, shift);
  }
  template <int shift>
  MD5_INLINE static void H(Word& a, Word b, Word c, Word d, Word x, std::uint32_t k) {
    a += x + k;
    Pin(a);
    a += b ^ (c ^ d);
    a = b + std::rotl(a, shift);
  }
  template <int shift>
  MD5_INLINE static void I(Word& a, Word b, Word c, Word d, Word x, std::uint32_t k) {
    a += x + k;
    Pin(a);
    a += c ^ (b | ~d);
    a = b + std::rotl(a, shift);
  }
};

struct OneBlock {
  const std::uint8_t* bytes;
  MD5_INLINE std::uint32_t operator()(int index) const {
    std::uint32_t word;
    std::memcpy(&word, bytes + 4 * index, sizeof(word));
    if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap32(word);
    return word;
  }
};

}  // namespace

void CompressOne(std::uint32_t* state, const std::uint8_t* blocks, std::size_t blockCount) {
  std::uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
  for (; blockCount != 0; --blockCount, blocks += kBlockSize) {
    const std::uint32_t a0 = a, b0 = b, c0 = c, d0 = d;
    Steps<One, 0, 64>(a, b, c, d, OneBlock{blocks});
    a += a0;
    b += b0;
    c += c0;
    d += d0;
  }
  state[0] = a;
  state[1] = b;
  state[2] = c;
  state[3] = d;
}

void CompressTwo(std::uint32_t* first, const std::uint8_t* firstBlocks, std::uint32_t* second,
                 const std::uint8_t* secondBlocks, std::size_t blockCount) {
  CompressOne(first, firstBlocks, blockCount);
  CompressOne(second, secondBlocks, blockCount);
}

}  // namespace md5
