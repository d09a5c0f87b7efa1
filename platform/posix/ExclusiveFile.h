// Share mode 0 on a system whose files are shared: an advisory lock on the
// open file description (flock(2)), which excludes every other opener that
// comes through here, in this process or another, and ends with the process
// however it ends.
#pragma once

#include <sys/stat.h>

#include "platform/Win32.h"
#include "platform/posix/FileDescriptor.h"

namespace platform {

// Opens a regular file and locks it. flags: O_RDONLY, O_WRONLY or O_RDWR, and
// O_CREAT with or without O_EXCL. Never waits. Creates nothing at the end of a
// symbolic link: what it leads to may be on a disk that is not mounted.
// Returns a Win32 code: ERROR_SHARING_VIOLATION when another opener holds it,
// ERROR_ACCESS_DENIED for anything but a regular file and for writing to a
// read-only one, ERROR_FILE_EXISTS. `file` is open on success alone.
DWORD OpenExclusively(const char* path, int flags, FileDescriptor& file);

// A file without any write permission has FILE_ATTRIBUTE_READONLY.
constexpr bool IsReadOnly(mode_t mode) {
  return (mode & 0222) == 0;
}

}  // namespace platform
