// How a command ends: its exit status, and the two kinds of failure. Both texts are for the user,
// without the program's name and without a newline. What the store itself reports is a
// blobring::Error, see Open.h.
#pragma once

#include <fmt/format.h>

#include <stdexcept>

namespace tool {

enum ExitStatus : int { kSuccess = 0, kFault = 1, kUsage = 2 };

class Failure : public std::runtime_error {
 public:
  template <class... T>
  explicit Failure(fmt::format_string<T...> text, T&&... values)
      : std::runtime_error(fmt::format(text, std::forward<T>(values)...)) {}
};

// The store, a blob or a file is at fault: exit status 1.
class Fault : public Failure {
  using Failure::Failure;
};

// The request makes no sense or is refused: exit status 2.
class UsageError : public Failure {
  using Failure::Failure;
};

}  // namespace tool
