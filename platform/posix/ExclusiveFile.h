// Share mode 0 on a system whose files are shared: an advisory lock on the
// open file description (flock(2)), which excludes every other opener that
// comes through here, in this process or another, and ends with the process
// however it ends.
#pragma once

#include "platform/Win32.h"
#include "platform/posix/FileDescriptor.h"

namespace platform {

struct ExclusiveFile {
  FileDescriptor file;
  bool existed = false;  // before this open
};

// Opens a regular file and locks it. flags: O_RDONLY, O_WRONLY or O_RDWR, and
// O_CREAT with or without O_EXCL; never O_TRUNC, which would act before the
// lock is held. A new file gets `mode`. Never waits.
// Returns a Win32 code: ERROR_SHARING_VIOLATION when someone else holds it,
// ERROR_ACCESS_DENIED for anything but a regular file and for writing to a
// read-only one, ERROR_FILE_EXISTS.
DWORD OpenExclusively(const char* path, int flags, mode_t mode, ExclusiveFile& out);

// A file without any write permission has FILE_ATTRIBUTE_READONLY.
constexpr bool IsReadOnly(mode_t mode) {
  return (mode & 0222) == 0;
}

}  // namespace platform
