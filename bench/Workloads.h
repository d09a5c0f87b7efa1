// What is measured, written once against the interface of a store.
#pragma once

#include <string>
#include <vector>

#include "bench/Measure.h"

namespace bench {

// How much of the full measurement is made.
struct Extent {
  std::size_t divisor = 1;  // of every number of blobs
  int rounds = 0;           // 0: as each scenario has it
};

using MakeScenario = Scenario (*)(const Extent& extent);

struct NamedScenario {
  std::string id;
  MakeScenario make;  // holds the scenario's data, which may be large
};

const std::vector<NamedScenario>& AllScenarios();

// How cost grows: one store of `blobCount` blobs.
struct ScalePoint {
  std::string name;
  std::size_t blobCount;
  Sample put, open, get, size;  // of all of them; of kScaleReads for get and size
  double indexBytes = 0;        // memory of the index per blob; ours only
  double processBytes = 0;      // what the process grew by per blob while the store was opened
};

constexpr std::size_t kScaleBlobSize = 128;
constexpr std::size_t kScaleReads = 100000;

std::vector<ScalePoint> MeasureScaling(const Extent& extent, const std::filesystem::path& directory,
                                       const std::vector<std::string>& only);

}  // namespace bench
