// A failure that the caller can tell by a code as well as by its text.
#pragma once

#include <exception>
#include <new>
#include <stdexcept>

#include "platform/Text.h"
#include "platform/Win32.h"

// The values are those of BLOBRING_ERROR_... in blobring/blobring.h.
enum class FailureCode : int {
  None = 0,
  Held = 1,      // another opener has the file
  Full = 2,      // the disk, a quota or a file's limit
  Damaged = 3,   // bytes on disk are not what a store wrote
  InDoubt = 4,   // a flush has failed
  Closed = 5,    // the store was closed, by its owner or by a failure
  NoStore = 6,   // there is none, or no such index
  Argument = 7,  // the caller's
  Io = 8,        // the system's
  Memory = 9,
  ReadOnly = 10,  // the store was opened for reading
  Refused = 11,   // not now: the message says why
  NotFound = 12,  // no such blob, file or directory
};

// The failure that a platform error code stands for.
inline FailureCode FailureOf(DWORD systemCode) {
  switch (systemCode) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
      return FailureCode::NotFound;
    case ERROR_SHARING_VIOLATION:
      return FailureCode::Held;
    case ERROR_DISK_FULL:
    case ERROR_HANDLE_DISK_FULL:
    case ERROR_FILE_TOO_LARGE:
      return FailureCode::Full;
    case ERROR_NOT_ENOUGH_MEMORY:
      return FailureCode::Memory;
    default:
      return FailureCode::Io;
  }
}

// What GetLastError says of a call that has failed.
struct SystemCode {
  DWORD value = ERROR_SUCCESS;
};

class Failure : public std::runtime_error {
 public:
  template <class... Pieces>
  explicit Failure(FailureCode failureCode, SystemCode systemCode, const Pieces&... pieces)
      : std::runtime_error(Join({TextPiece(pieces)...})), code(failureCode), system(systemCode) {}
  template <class... Pieces>
  explicit Failure(FailureCode failureCode, const Pieces&... pieces)
      : Failure(failureCode, SystemCode(), pieces...) {}
  template <class... Pieces>
  explicit Failure(SystemCode systemCode, const Pieces&... pieces)
      : Failure(FailureOf(systemCode.value), systemCode, pieces...) {}

  FailureCode code;
  SystemCode system;  // of the call behind it, if there is one
};

// The failure that an exception stands for.
inline FailureCode CodeOf(const std::exception& e) {
  if (const auto* failure = dynamic_cast<const Failure*>(&e)) return failure->code;
  return dynamic_cast<const std::bad_alloc*>(&e) != nullptr ? FailureCode::Memory
                                                            : FailureCode::Refused;
}

namespace trace {

// Both are defined in api/, which knows the store of the call that the thread is in.

// Adds a line to the failure text of the call that the thread is in.
void Note(const char* line);

// Sets the failure codes of that call from an exception. Call it before the message that reports
// the failure is written.
void NoteCause(const std::exception& e);

}  // namespace trace
