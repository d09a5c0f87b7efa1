// How a command ends: its exit status, and the two kinds of failure. Both texts
// are for the user, without the program's name and without a newline. What the
// store itself reports is a blobring::Error, see Open.h.
#pragma once

#include <stdexcept>

namespace tool {

enum ExitStatus : int { kSuccess = 0, kFault = 1, kUsage = 2 };

// The store, a blob or a file is at fault: exit status 1.
class Fault : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The request makes no sense or is refused: exit status 2.
class UsageError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace tool
