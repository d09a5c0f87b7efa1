// The 64 steps of RFC 1321, written once for general and vector registers.
//
// Word is the type that the steps work on: one 32-bit word of each message that is digested at the
// same time. It has +, with a Word or a constant, ^, &, |, ~ and Rotate<n> (left, by n bits). A
// block has AddWordTo(Word& sum, int index), which adds its message word.
#pragma once

#include <cstddef>
#include <cstdint>

// Everything here is inlined into one loop at any optimisation level, so that the state stays in
// registers. A file for an instruction set of its own defines MD5_TARGET first: inlined code must
// be compiled for the same set.
#ifndef MD5_TARGET
#define MD5_TARGET
#endif
#define MD5_INLINE MD5_TARGET __attribute__((always_inline)) inline

namespace md5 {

// floor(2^32 * |sin(i + 1)|), section 3.4.
inline constexpr std::uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

inline constexpr int kShift[4][4] = {
    {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// The message word that step i adds.
constexpr int WordOfStep(int i) {
  constexpr int kFactor[4] = {1, 5, 3, 7};
  constexpr int kOffset[4] = {0, 1, 5, 0};
  return (kFactor[i / 16] * i + kOffset[i / 16]) % 16;
}

// a = b + rotl(a + f(b, c, d) + x + k, s). b is the result of the previous step, so everything that
// does not need it comes first.
template <int i, class Word, class Block>
MD5_INLINE void Step(Word& a, const Word& b, const Word& c, const Word& d, const Block& block) {
  block.AddWordTo(a, WordOfStep(i));
  a = a + kSine[i];
  if constexpr (i < 16) {
    a = a + (((c ^ d) & b) ^ d);
  } else if constexpr (i < 32) {
    // (b & d) | (c & ~d): the terms have no bit in common, so OR is a sum, and one term does not
    // wait for b.
    a = a + (~d & c);
    a = a + (b & d);
  } else if constexpr (i < 48) {
    a = a + ((c ^ d) ^ b);
  } else {
    a = a + ((~d | b) ^ c);
  }
  a = a.template Rotate<kShift[i / 16][i % 4]>() + b;
}

// Steps first to last - 1, both multiples of 4.
template <int first, int last, class Word, class Block>
MD5_INLINE void Steps(Word& a, Word& b, Word& c, Word& d, const Block& block) {
  if constexpr (first < last) {
    Step<first>(a, b, c, d, block);
    Step<first + 1>(d, a, b, c, block);
    Step<first + 2>(c, d, a, b, block);
    Step<first + 3>(b, c, d, a, block);
    Steps<first + 4, last>(a, b, c, d, block);
  }
}

// Adds one block of every message to the state.
template <class Word, class Block>
MD5_INLINE void Compress(Word& a, Word& b, Word& c, Word& d, const Block& block) {
  const Word a0 = a, b0 = b, c0 = c, d0 = d;
  Steps<0, 64>(a, b, c, d, block);
  a = a + a0;
  b = b + b0;
  c = c + c0;
  d = d + d0;
}

// Two Words, interleaved: while a step of one waits for the step before it, the other one computes.
template <class Word>
struct Pair {
  Word first, second;

  MD5_INLINE Pair operator+(const Pair& o) const { return {first + o.first, second + o.second}; }
  MD5_INLINE Pair operator+(const std::uint32_t& k) const { return {first + k, second + k}; }
  MD5_INLINE Pair operator^(const Pair& o) const { return {first ^ o.first, second ^ o.second}; }
  MD5_INLINE Pair operator&(const Pair& o) const { return {first & o.first, second & o.second}; }
  MD5_INLINE Pair operator|(const Pair& o) const { return {first | o.first, second | o.second}; }
  MD5_INLINE Pair operator~() const { return {~first, ~second}; }
  template <int n>
  MD5_INLINE Pair Rotate() const {
    return {first.template Rotate<n>(), second.template Rotate<n>()};
  }
};

}  // namespace md5
