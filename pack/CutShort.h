// Thrown by a replay whose file ends inside a record or a transaction. The
// text is File's own about the read that failed; the type tells such a file
// from one that cannot be read for other reasons.
#pragma once

#include <stdexcept>

class CutShort : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};
