// Lanes in NEON registers: 4 messages, or 8 in two interleaved vectors.
#ifdef __AARCH64EL__

#include <arm_neon.h>

#include "md5/MD5Lanes.h"

namespace md5 {
namespace {

struct Neon {
  static constexpr std::size_t kLanes = 4;
  uint32x4_t value;

  MD5_INLINE void Add(const Neon& other) { value = vaddq_u32(value, other.value); }
  MD5_INLINE void Add(const std::uint32_t& k) { value = vaddq_u32(value, vdupq_n_u32(k)); }
  MD5_INLINE void Xor(const Neon& other) { value = veorq_u32(value, other.value); }
  MD5_INLINE void And(const Neon& other) { value = vandq_u32(value, other.value); }
  MD5_INLINE void Or(const Neon& other) { value = vorrq_u32(value, other.value); }
  MD5_INLINE void Not() { value = vmvnq_u32(value); }
  template <int n>
  MD5_INLINE void Rotate() {
    value = vsriq_n_u32(vshlq_n_u32(value, n), value, 32 - n);
  }

  MD5_INLINE void Load(const std::uint32_t* words) { value = vld1q_u32(words); }
  MD5_INLINE void Store(std::uint32_t* words) const { vst1q_u32(words, value); }

  MD5_INLINE static uint32x4_t LoadRow(const std::uint8_t* bytes) {
    return vreinterpretq_u32_u8(vld1q_u8(bytes));
  }
  MD5_INLINE static void Transpose(const std::uint8_t* const* rows, std::size_t offset,
                                   std::uint32_t* words, std::size_t stride) {
    for (std::size_t i = 0; i < 16; i += 4, offset += 16) {
      const uint32x4x2_t even = vzipq_u32(LoadRow(rows[0] + offset), LoadRow(rows[2] + offset));
      const uint32x4x2_t odd = vzipq_u32(LoadRow(rows[1] + offset), LoadRow(rows[3] + offset));
      const uint32x4x2_t low = vzipq_u32(even.val[0], odd.val[0]),
                         high = vzipq_u32(even.val[1], odd.val[1]);
      Neon{low.val[0]}.Store(words + i * stride);
      Neon{low.val[1]}.Store(words + (i + 1) * stride);
      Neon{high.val[0]}.Store(words + (i + 2) * stride);
      Neon{high.val[1]}.Store(words + (i + 3) * stride);
    }
  }
};

void CompressByNeon(LaneState& lanes, std::size_t lanesInUse, std::size_t blockCount) {
  CompressLanesInUse<Neon>(lanes, lanesInUse, blockCount);
}

}  // namespace

const LaneEngine kNeonEngine = {"NEON", 2 * Neon::kLanes, 4, CompressByNeon};

}  // namespace md5

#endif
