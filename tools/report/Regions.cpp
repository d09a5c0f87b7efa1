#include "tools/report/Regions.h"

#include <algorithm>
#include <array>

namespace tool {
namespace {

bool MayMix(RegionState state) {
  return state == RegionState::kLive || state == RegionState::kDead || state == RegionState::kMixed;
}

}  // namespace

std::string_view NameOf(RegionState state) {
  constexpr std::array<std::string_view, kRegionStates> kNames = {
      "live", "dead", "mixed", "older", "uncommitted", "unloaded", "damaged", "free"};
  return kNames.at(static_cast<size_t>(state));
}

void Regions::AddUpTo(uint64_t end, RegionState state) {
  const uint64_t begin = this->end();
  end = std::min(end, fileSize_);
  if (end <= begin) return;
  const uint64_t live = state == RegionState::kLive ? end - begin : 0;
  if (!list_.empty()) {
    Region& last = list_.back();
    const bool isSame = last.state == state;
    if (isSame ||
        (MayMix(last.state) && MayMix(state) && last.begin / binSize_ == begin / binSize_)) {
      if (!isSame) last.state = RegionState::kMixed;
      last.end = end;
      last.liveBytes += live;
      return;
    }
  }
  list_.push_back({begin, end, state, live});
}

}  // namespace tool
