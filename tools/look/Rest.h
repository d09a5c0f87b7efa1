// What lies in a file behind the records that count.
#pragma once

#include <functional>
#include <string>

#include "tools/look/FileWalk.h"

namespace tool {

struct Rest {
  enum class Kind { kNothing, kZeros, kUnfinished, kUncounted, kLeftovers };

  Kind kind = Kind::kNothing;
  uint64_t size = 0;  // bytes
  // "zeros", "an unfinished transaction of 3 records", "leftovers ...".
  std::string what;
};

// `record` is called for each record that follows the start of a transaction there.
Rest RestOf(SalvageFile& file, uint64_t at, const std::function<void(const WalkedRecord&)>& record);

}  // namespace tool
