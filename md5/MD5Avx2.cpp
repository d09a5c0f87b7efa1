// Lanes in AVX2 registers: 8 messages, or 16 in two interleaved vectors. Only
// the functions here are compiled for AVX2, so that the library also runs on
// processors without it.
#ifdef __x86_64__

#include <immintrin.h>

#define MD5_TARGET __attribute__((target("avx2")))
#include "md5/MD5Lanes.h"

namespace md5 {
namespace {

struct Avx2 {
  static constexpr std::size_t kLanes = 8;
  __m256i value;

  MD5_INLINE void Add(const Avx2& other) {
    value = _mm256_add_epi32(value, other.value);
    // Keeps the sums in the order of the source.
    asm("" : "+x"(value));
  }
  MD5_INLINE void Add(const std::uint32_t& k) {
    // From memory. g++ would broadcast the constant from a general register,
    // which costs more than the sum.
    __m256i all;
    asm("vpbroadcastd %1, %0" : "=x"(all) : "m"(k));
    Add(Avx2{all});
  }
  MD5_INLINE void Xor(const Avx2& other) { value = _mm256_xor_si256(value, other.value); }
  MD5_INLINE void And(const Avx2& other) { value = _mm256_and_si256(value, other.value); }
  MD5_INLINE void Or(const Avx2& other) { value = _mm256_or_si256(value, other.value); }
  MD5_INLINE void Not() { value = _mm256_xor_si256(value, _mm256_set1_epi32(-1)); }
  template <int n>
  MD5_INLINE void Rotate() {
    value = _mm256_or_si256(_mm256_slli_epi32(value, n), _mm256_srli_epi32(value, 32 - n));
  }

  MD5_INLINE void Load(const std::uint32_t* words) {
    value = _mm256_load_si256(reinterpret_cast<const __m256i*>(words));
  }
  MD5_INLINE void Store(std::uint32_t* words) const {
    _mm256_store_si256(reinterpret_cast<__m256i*>(words), value);
  }

  // Words i to i + 3 of two lanes, four lanes apart.
  MD5_INLINE static __m256i LoadRows(const std::uint8_t* const* rows, std::size_t offset) {
    const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[0] + offset));
    const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[4] + offset));
    return _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
  }
  MD5_INLINE static void TransposeFour(const std::uint8_t* const* rows, std::size_t offset,
                                       std::uint32_t* words, std::size_t stride) {
    const __m256i row0 = LoadRows(rows, offset), row1 = LoadRows(rows + 1, offset);
    const __m256i row2 = LoadRows(rows + 2, offset), row3 = LoadRows(rows + 3, offset);
    const __m256i low01 = _mm256_unpacklo_epi32(row0, row1),
                  high01 = _mm256_unpackhi_epi32(row0, row1);
    const __m256i low23 = _mm256_unpacklo_epi32(row2, row3),
                  high23 = _mm256_unpackhi_epi32(row2, row3);
    Avx2{_mm256_unpacklo_epi64(low01, low23)}.Store(words);
    Avx2{_mm256_unpackhi_epi64(low01, low23)}.Store(words + stride);
    Avx2{_mm256_unpacklo_epi64(high01, high23)}.Store(words + 2 * stride);
    Avx2{_mm256_unpackhi_epi64(high01, high23)}.Store(words + 3 * stride);
  }
  MD5_INLINE static void Transpose(const std::uint8_t* const* rows, std::size_t offset,
                                   std::uint32_t* words, std::size_t stride) {
    for (std::size_t i = 0; i < 16; i += 4)
      TransposeFour(rows, offset + 4 * i, words + i * stride, stride);
  }
};

MD5_TARGET void CompressByAvx2(LaneState& lanes, std::size_t lanesInUse, std::size_t blockCount) {
  CompressLanesInUse<Avx2>(lanes, lanesInUse, blockCount);
}

}  // namespace

const LaneEngine kAvx2Engine = {"AVX2", 2 * Avx2::kLanes, 3, CompressByAvx2};

}  // namespace md5

#endif
