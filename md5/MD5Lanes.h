// LaneEngine::compress, written once for any vector.
//
// Vector is a Word (see MD5Rounds.h) with one message in each of its kLanes
// elements. Load and Store take kLanes words, aligned to the vector's size.
// Transpose writes word i of the blocks at rows[lane] + offset, side by side,
// to words + i * stride.
#pragma once

#include "md5/MD5Engines.h"
#include "md5/MD5Rounds.h"

namespace md5 {

template <class Vector>
struct VectorPair : Pair<Vector> {
  static constexpr std::size_t kLanes = 2 * Vector::kLanes;

  MD5_INLINE void Load(const std::uint32_t* words) {
    this->first.Load(words);
    this->second.Load(words + Vector::kLanes);
  }
  MD5_INLINE void Store(std::uint32_t* words) const {
    this->first.Store(words);
    this->second.Store(words + Vector::kLanes);
  }
  MD5_INLINE static void Transpose(const std::uint8_t* const* rows, std::size_t offset,
                                   std::uint32_t* words, std::size_t stride) {
    Vector::Transpose(rows, offset, words, stride);
    Vector::Transpose(rows + Vector::kLanes, offset, words + Vector::kLanes, stride);
  }
};

template <class Vector>
struct LaneBlock {
  const std::uint32_t* words;

  MD5_INLINE void AddWordTo(Vector& sum, int index) const {
    Vector word;
    word.Load(words + static_cast<std::size_t>(index) * Vector::kLanes);
    sum.Add(word);
  }
};

template <class Vector>
MD5_INLINE void CompressLanes(LaneState& lanes, std::size_t blockCount) {
  alignas(64) std::uint32_t words[kBlockSize / sizeof(std::uint32_t) * Vector::kLanes];
  Vector a, b, c, d;
  a.Load(lanes.state[0]);
  b.Load(lanes.state[1]);
  c.Load(lanes.state[2]);
  d.Load(lanes.state[3]);
  for (std::size_t i = 0; i < blockCount; ++i) {
    Vector::Transpose(lanes.next, i * kBlockSize, words, Vector::kLanes);
    Compress(a, b, c, d, LaneBlock<Vector>{words});
  }
  a.Store(lanes.state[0]);
  b.Store(lanes.state[1]);
  c.Store(lanes.state[2]);
  d.Store(lanes.state[3]);
}

// One vector if that is enough for the lanes in use, else two, interleaved.
template <class Vector>
MD5_INLINE void CompressLanesInUse(LaneState& lanes, std::size_t lanesInUse,
                                   std::size_t blockCount) {
  if (lanesInUse <= Vector::kLanes) {
    CompressLanes<Vector>(lanes, blockCount);
  } else {
    CompressLanes<VectorPair<Vector>>(lanes, blockCount);
  }
}

}  // namespace md5
