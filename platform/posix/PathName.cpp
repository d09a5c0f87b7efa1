#include "platform/posix/PathName.h"

#include <cstring>

namespace platform {
namespace {

constexpr bool IsHighSurrogate(WCHAR unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}
constexpr bool IsLowSurrogate(WCHAR unit) {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}
constexpr bool IsOneByte(WCHAR unit) {
  return unit <= 0x00FF || unit >= 0xFF80;
}

}  // namespace

PathName::PathName(const WCHAR* units) {
  if (units == nullptr) {
    error_ = ERROR_INVALID_PARAMETER;
    return;
  }
  for (; *units != 0 && error_ == ERROR_SUCCESS; ++units) {
    if (IsOneByte(*units)) {
      Append(*units & 0xFFU);
    } else if (IsHighSurrogate(units[0]) && IsLowSurrogate(units[1])) {
      AppendCharacter(0x10000U + ((units[0] & 0x3FFU) << 10) + (units[1] & 0x3FFU));
      ++units;
    } else if (IsHighSurrogate(*units) || IsLowSurrogate(*units)) {
      error_ = ERROR_INVALID_NAME;
    } else {
      AppendCharacter(*units);
    }
  }
}

void PathName::Assign(const char* bytes, std::size_t length) {
  std::memmove(bytes_, bytes, length);
  CutTo(length);
}

void PathName::CutTo(std::size_t length) {
  length_ = length;
  bytes_[length] = '\0';
}

void PathName::Append(unsigned byte) {
  if (length_ + 1 >= sizeof(bytes_)) {
    error_ = ERROR_FILENAME_EXCED_RANGE;
    return;
  }
  bytes_[length_++] = static_cast<char>(byte);
}

void PathName::AppendCharacter(unsigned codePoint) {
  if (codePoint < 0x800) {
    Append(0xC0U | codePoint >> 6);
  } else {
    if (codePoint < 0x10000) {
      Append(0xE0U | codePoint >> 12);
    } else {
      Append(0xF0U | codePoint >> 18);
      Append(0x80U | (codePoint >> 12 & 0x3FU));
    }
    Append(0x80U | (codePoint >> 6 & 0x3FU));
  }
  Append(0x80U | (codePoint & 0x3FU));
}

PathName ParentOf(const char* path) {
  std::size_t length = std::strlen(path);
  while (length > 1 && path[length - 1] == '/') --length;
  while (length > 0 && path[length - 1] != '/') --length;
  while (length > 1 && path[length - 1] == '/') --length;

  PathName parent;
  if (length == 0) {
    parent.Assign(".", 1);
  } else {
    parent.Assign(path, length);
  }
  return parent;
}

}  // namespace platform
