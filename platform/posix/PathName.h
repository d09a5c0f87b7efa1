// A path as the kernel takes it: bytes. Held in place, so that naming a file
// needs no memory and cannot throw.
#pragma once

#include <climits>
#include <cstddef>

#include "platform/Win32.h"

namespace platform {

class PathName {
 public:
  PathName() = default;

  // From the UTF-16 of a Win32 call. Callers widen a byte path byte by byte,
  // zero- or sign-extended, so a unit of 0x0000-0x00FF or 0xFF80-0xFFFF is
  // the one byte it came from. Any other unit is text and becomes UTF-8
  // (RFC 3629), a surrogate pair being one character. See Error().
  explicit PathName(const WCHAR* units);

  // ERROR_SUCCESS, or why there is no path: ERROR_INVALID_PARAMETER for a
  // null pointer, ERROR_INVALID_NAME for half a surrogate pair,
  // ERROR_FILENAME_EXCED_RANGE for PATH_MAX bytes or more.
  DWORD Error() const { return error_; }

  const char* Text() const { return bytes_; }
  std::size_t Length() const { return length_; }

  // Take over or cut off a tail. Assign wants fewer than PATH_MAX bytes.
  void Assign(const char* bytes, std::size_t length);
  void CutTo(std::size_t length);

 private:
  void Append(unsigned byte);
  void AppendCharacter(unsigned codePoint);

  char bytes_[PATH_MAX] = {};
  std::size_t length_ = 0;
  DWORD error_ = ERROR_SUCCESS;
};

// The directory that holds the last component of path: "." or "/" where the
// path names no other. Wants fewer than PATH_MAX bytes.
PathName ParentOf(const char* path);

// Widens one byte of a file name, as a signed 8-bit value; the inverse of
// what PathName does to it.
constexpr WCHAR Widened(char byte) {
  return static_cast<WCHAR>(static_cast<signed char>(byte));
}

}  // namespace platform
