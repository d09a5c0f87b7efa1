// From samples to numbers that are reported.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "bench/Measure.h"

namespace bench {

enum class Quantity { Cpu, Wall, Written };

double Of(const Sample& sample, Quantity quantity);

// 0 of nothing.
double Median(std::vector<double> values);
double MedianOf(const std::vector<Sample>& samples, Quantity quantity);

// Of the ratios round by round, so that a round that was disturbed counts
// once and not twice.
double MedianRatio(const std::vector<Sample>& ours, const std::vector<Sample>& theirs, Quantity quantity);

struct Best {
  std::string name;
  double value;  // median
  double ratio;  // ours to it
};

// The peer that we look worst beside. None without samples of ours or of any
// peer. The hash file, which is not safe, counts only where it is asked for.
std::optional<Best> BestPeer(const std::map<std::string, std::vector<Sample>>& samples, Quantity quantity,
                             bool hashFileCounts);

}  // namespace bench
