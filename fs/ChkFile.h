// A checksum file: 16 raw bytes, the MD5 (RFC 1321) of all that follows them.
#pragma once

#include <string>

#include "platform/Export.h"

class FileReader;

class BLOBRING_EXPORT ChkFile {
 public:
  // Whether the bytes match their digest. A file of under 16 bytes and one that cannot be read
  // throw File's std::runtime_error.
  static bool Validate(FileReader& f);
  static bool Validate(std::string& path);
};
