// What the bytes of a file are, in few enough pieces for a picture.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace tool {

enum class RegionState {
  kLive,         // current blobs, and the records around them
  kDead,         // what a repack of the current generation leaves behind
  kMixed,        // small pieces of the two
  kOlder,        // of a generation that is not current; the next repacks overwrite it
  kUncommitted,  // of a transaction or repack that did not end
  kUnloaded,     // behind damage or of a newer generation, so that a load does not get to it
  kDamaged,
  kFree,
};
inline constexpr int kRegionStates = 8;

std::string_view NameOf(RegionState state);

struct Region {
  uint64_t begin = 0;
  uint64_t end = 0;
  RegionState state = RegionState::kFree;
  uint64_t liveBytes = 0;
};

// Pieces of a file, added in order and without gaps, joined where that loses nothing that matters:
// equal neighbours always, small live and dead ones if they begin in the same of `bins` parts of
// the file. So there are at most bins + 2 * (pieces of other states) regions.
class Regions {
 public:
  Regions(uint64_t fileSize, uint64_t bins) : fileSize_(fileSize), binSize_(fileSize / bins + 1) {}

  // Up to `end`, or to the end of a file that has grown since. Does nothing if earlier pieces reach
  // as far.
  void AddUpTo(uint64_t end, RegionState state);

  uint64_t end() const { return list_.empty() ? 0 : list_.back().end; }
  const std::vector<Region>& list() const { return list_; }

 private:
  uint64_t fileSize_;
  uint64_t binSize_;
  std::vector<Region> list_;
};

}  // namespace tool
