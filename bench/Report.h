// What was measured, as a page of Markdown.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "bench/Measure.h"

namespace bench {

struct Results {
  std::vector<Contender> contenders;  // in the order of the columns; ours is the first
  std::vector<Step> steps;            // in the order of the rows
  Samples samples;
};

void WriteMarkdown(const Results& results, std::ostream& out);

}  // namespace bench
