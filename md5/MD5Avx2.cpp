// Blocks in AVX2 registers: 8 messages, or 16 in two interleaved vectors. Only the functions here
// are compiled for AVX2, so that the library also runs on processors without it.
#include "md5/MD5Blocks.h"

#ifdef __x86_64__

#include <immintrin.h>

#define MD5_TARGET __attribute__((target("avx2")))
#include "md5/MD5Rounds.h"

namespace md5 {
namespace {

// One word of 8 messages.
struct Vector {
  __m256i value;

  MD5_INLINE Vector operator+(const Vector& o) const {
    Vector sum{_mm256_add_epi32(value, o.value)};
    asm("" : "+x"(sum.value));  // keeps the sums in the order of the source
    return sum;
  }
  MD5_INLINE Vector operator+(const std::uint32_t& k) const {
    // From memory. g++ would broadcast the constant from a general register, which costs more than
    // the sum.
    Vector all;
    asm("vpbroadcastd %1, %0" : "=x"(all.value) : "m"(k));
    return *this + all;
  }
  MD5_INLINE Vector operator^(const Vector& o) const { return {_mm256_xor_si256(value, o.value)}; }
  MD5_INLINE Vector operator&(const Vector& o) const { return {_mm256_and_si256(value, o.value)}; }
  MD5_INLINE Vector operator|(const Vector& o) const { return {_mm256_or_si256(value, o.value)}; }
  MD5_INLINE Vector operator~() const { return {_mm256_xor_si256(value, _mm256_set1_epi32(-1))}; }
  template <int n>
  MD5_INLINE Vector Rotate() const {
    return {_mm256_or_si256(_mm256_slli_epi32(value, n), _mm256_srli_epi32(value, 32 - n))};
  }
};

template <class Word>
constexpr std::size_t kLanesOf = sizeof(Word) / sizeof(std::uint32_t);

// kLanesOf words, aligned to the vector's size.
MD5_INLINE void Load(Vector& vector, const std::uint32_t* words) {
  vector.value = _mm256_load_si256(reinterpret_cast<const __m256i*>(words));
}
MD5_INLINE void Store(const Vector& vector, std::uint32_t* words) {
  _mm256_store_si256(reinterpret_cast<__m256i*>(words), vector.value);
}
MD5_INLINE void Load(Pair<Vector>& pair, const std::uint32_t* words) {
  Load(pair.first, words);
  Load(pair.second, words + kLanesOf<Vector>);
}
MD5_INLINE void Store(const Pair<Vector>& pair, std::uint32_t* words) {
  Store(pair.first, words);
  Store(pair.second, words + kLanesOf<Vector>);
}

// Words i to i + 3 of two lanes, four lanes apart.
MD5_INLINE __m256i LoadRows(const std::uint8_t* const* rows, std::size_t offset) {
  const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[0] + offset));
  const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[4] + offset));
  return _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
}

// Writes word i of the blocks at rows[0..7] + offset, side by side, to words + i * stride.
MD5_INLINE void Transpose(const std::uint8_t* const* rows, std::size_t offset, std::uint32_t* words,
                          std::size_t stride) {
  for (std::size_t i = 0; i < 16; i += 4, offset += 16, words += 4 * stride) {
    const __m256i row0 = LoadRows(rows, offset), row1 = LoadRows(rows + 1, offset);
    const __m256i row2 = LoadRows(rows + 2, offset), row3 = LoadRows(rows + 3, offset);
    const __m256i low01 = _mm256_unpacklo_epi32(row0, row1);
    const __m256i high01 = _mm256_unpackhi_epi32(row0, row1);
    const __m256i low23 = _mm256_unpacklo_epi32(row2, row3);
    const __m256i high23 = _mm256_unpackhi_epi32(row2, row3);
    Store(Vector{_mm256_unpacklo_epi64(low01, low23)}, words);
    Store(Vector{_mm256_unpackhi_epi64(low01, low23)}, words + stride);
    Store(Vector{_mm256_unpacklo_epi64(high01, high23)}, words + 2 * stride);
    Store(Vector{_mm256_unpackhi_epi64(high01, high23)}, words + 3 * stride);
  }
}

template <class Word>
struct LaneBlock {
  const std::uint32_t* words;

  MD5_INLINE void AddWordTo(Word& sum, int index) const {
    Word word;
    Load(word, words + static_cast<std::size_t>(index) * kLanesOf<Word>);
    sum = sum + word;
  }
};

template <class Word>
MD5_INLINE void CompressBlocks(LaneState& lanes, std::size_t blockCount) {
  alignas(64) std::uint32_t words[kBlockSize / sizeof(std::uint32_t) * kLanesOf<Word>];
  Word a, b, c, d;
  Load(a, lanes.state[0]);
  Load(b, lanes.state[1]);
  Load(c, lanes.state[2]);
  Load(d, lanes.state[3]);
  for (std::size_t offset = 0; offset < blockCount * kBlockSize; offset += kBlockSize) {
    for (std::size_t lane = 0; lane < kLanesOf<Word>; lane += kLanesOf<Vector>)
      Transpose(lanes.next + lane, offset, words + lane, kLanesOf<Word>);
    Compress(a, b, c, d, LaneBlock<Word>{words});
  }
  Store(a, lanes.state[0]);
  Store(b, lanes.state[1]);
  Store(c, lanes.state[2]);
  Store(d, lanes.state[3]);
}

}  // namespace

bool HasLanes() {
  return __builtin_cpu_supports("avx2") != 0;
}

MD5_TARGET void CompressLanes(LaneState& lanes, std::size_t lanesInUse, std::size_t blockCount) {
  if (lanesInUse <= kLanesOf<Vector>) {
    CompressBlocks<Vector>(lanes, blockCount);
  } else {
    CompressBlocks<Pair<Vector>>(lanes, blockCount);
  }
}

}  // namespace md5

#else

bool md5::HasLanes() {
  return false;
}

void md5::CompressLanes(LaneState&, std::size_t, std::size_t) {}

#endif
