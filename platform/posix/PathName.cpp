#include "platform/posix/PathName.h"

#include <libgen.h>

#include <cstring>

namespace platform {

PathName::PathName(const WCHAR* units) {
  if (units == nullptr) error_ = ERROR_INVALID_PARAMETER;
  for (; error_ == ERROR_SUCCESS && *units != 0; ++units) {
    if (*units > 0x00FF && *units < 0xFF80) {
      error_ = ERROR_INVALID_NAME;
    } else if (length_ + 1 == sizeof bytes_) {
      error_ = ERROR_FILENAME_EXCED_RANGE;
    } else {
      bytes_[length_++] = static_cast<char>(*units & 0xFFU);
    }
  }
}

bool PathName::CutTail(std::string_view tail) {
  if (!std::string_view(bytes_, length_).ends_with(tail)) return false;
  length_ -= tail.size();
  bytes_[length_] = '\0';
  return true;
}

const char* ParentOf(const char* path, char (&buffer)[PATH_MAX]) {
  std::memcpy(buffer, path, std::strlen(path) + 1);
  return dirname(buffer);
}

}  // namespace platform
