// What was measured, as Markdown and as a chart.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "bench/Measure.h"
#include "bench/Workloads.h"

namespace bench {

struct Results {
  std::vector<Step> steps;  // in the order of the tables; only id and title are used
  Samples samples;
  std::vector<ScalePoint> scaling;
  std::vector<std::string> machine;
};

void WriteMarkdown(const Results& results, std::ostream& out);

// Bars of CPU time, one panel for each workload.
void WriteChart(const Results& results, std::ostream& out);

// Every sample, one line each, for whoever wants to look closer.
void WriteSamples(const Results& results, std::ostream& out);

}  // namespace bench
