// A benchmark that fails says so and measures nothing.
#pragma once

#include <stdexcept>
#include <string>

namespace bench {

// Throws std::runtime_error with both texts when something did not hold.
inline void Require(bool holds, const char* who, const std::string& what) {
  if (!holds) throw std::runtime_error(std::string(who) + ": " + what + " failed");
}

}  // namespace bench
