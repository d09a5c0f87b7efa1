#include "bench/Statistics.h"

#include <algorithm>

namespace bench {

double Of(const Sample& sample, Quantity quantity) {
  switch (quantity) {
    case Quantity::Cpu:
      return sample.cpuSeconds;
    case Quantity::Wall:
      return sample.wallSeconds;
    case Quantity::Written:
      return sample.storedBytes > 0 ? sample.writtenBytes / sample.storedBytes : 0;
  }
  return 0;
}

double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double MedianOf(const std::vector<Sample>& samples, Quantity quantity) {
  std::vector<double> values;
  for (const Sample& sample : samples) values.push_back(Of(sample, quantity));
  return Median(std::move(values));
}

double MedianRatio(const std::vector<Sample>& ours, const std::vector<Sample>& theirs, Quantity quantity) {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < std::min(ours.size(), theirs.size()); ++i)
    if (Of(theirs[i], quantity) > 0) ratios.push_back(Of(ours[i], quantity) / Of(theirs[i], quantity));
  return Median(std::move(ratios));
}

std::optional<Best> BestPeer(const std::map<std::string, std::vector<Sample>>& samples, Quantity quantity,
                             bool hashFileCounts) {
  const auto ours = samples.find(kBlobring);
  if (ours == samples.end()) return std::nullopt;
  std::optional<Best> best;
  for (const auto& [name, theirs] : samples) {
    if (name == kBlobring || name == kLimit || (name == kHashFile && !hashFileCounts)) continue;
    const double ratio = MedianRatio(ours->second, theirs, quantity);
    if (!best || ratio > best->ratio) best = Best{name, MedianOf(theirs, quantity), ratio};
  }
  return best;
}

}  // namespace bench
