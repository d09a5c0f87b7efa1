// What lies in a file behind the records that count.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "tools/view/FileWalk.h"

namespace tool {

struct Rest {
  enum class Kind {
    kNothing,
    kZeros,
    kUnfinished,        // a transaction without its end
    kUnfinishedRepack,  // the same in a pack that was emptied
    kUncounted,         // a whole transaction whose commit did not reach the header
    kOlder,             // whole transactions of an older generation
    kLeftovers,         // no record begins there
  };

  Kind kind = Kind::kNothing;
  uint64_t size = 0;  // bytes
  std::string what;   // in words
};

// As docs/json.md has it.
std::string_view NameOf(Rest::Kind kind);

// The rest from `at` on. `record` is called for each record of a transaction that begins there, and
// of those that follow it, with its state: "uncommitted", or "stale" of an older generation.
Rest RestOf(SalvageFile& file, const format::FileHeader& header, uint64_t at,
            const std::function<void(const format::Record&, std::string_view)>& record);

}  // namespace tool
