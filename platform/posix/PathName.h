// A path as the kernel takes it: bytes. Held in place, so that naming a file
// needs no memory and cannot throw.
#pragma once

#include <climits>
#include <cstddef>
#include <string_view>

#include "platform/Win32.h"

namespace platform {

class PathName {
 public:
  // From the UTF-16 of a Win32 call. Callers widen a byte path byte by byte,
  // zero- or sign-extended: a unit of 0x0000-0x00FF or 0xFF80-0xFFFF is the
  // byte it came from. See Error().
  explicit PathName(const WCHAR* units);

  // ERROR_SUCCESS, or why there is no path: ERROR_INVALID_PARAMETER for a
  // null pointer, ERROR_INVALID_NAME for any other unit,
  // ERROR_FILENAME_EXCED_RANGE for PATH_MAX bytes or more.
  DWORD Error() const { return error_; }

  const char* Text() const { return bytes_; }

  // Removes `tail` from the end; false if the path does not end with it.
  bool CutTail(std::string_view tail);

 private:
  char bytes_[PATH_MAX] = {};
  std::size_t length_ = 0;
  DWORD error_ = ERROR_SUCCESS;
};

// Widens one byte of a file name, as a signed 8-bit value; the inverse of
// what PathName does to it.
constexpr WCHAR Widened(char byte) {
  return static_cast<WCHAR>(static_cast<signed char>(byte));
}

// The directory that holds the last component of path, as dirname(3) has it:
// "." or "/" where the path names no other. The text may lie in `buffer`.
// REQUIRES: path has fewer than PATH_MAX bytes.
const char* ParentOf(const char* path, char (&buffer)[PATH_MAX]);

}  // namespace platform
