#include "platform/posix/LastError.h"

#include <sys/stat.h>

#include <cerrno>

#include "platform/posix/PathName.h"

namespace platform {
namespace {

constinit thread_local DWORD lastError = ERROR_SUCCESS;

struct Translation {
  int errorNumber;
  DWORD code;
};

constexpr Translation kTranslations[] = {
    {0, ERROR_SUCCESS},
    {ENOENT, ERROR_FILE_NOT_FOUND},
    {ENOTDIR, ERROR_PATH_NOT_FOUND},
    {ELOOP, ERROR_PATH_NOT_FOUND},
    {EACCES, ERROR_ACCESS_DENIED},
    {EPERM, ERROR_ACCESS_DENIED},
    {EISDIR, ERROR_ACCESS_DENIED},
    {EROFS, ERROR_WRITE_PROTECT},
    {EEXIST, ERROR_ALREADY_EXISTS},
    {ENOTEMPTY, ERROR_DIR_NOT_EMPTY},
    {EMFILE, ERROR_TOO_MANY_OPEN_FILES},
    {ENFILE, ERROR_TOO_MANY_OPEN_FILES},
    {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
    {ENOSPC, ERROR_DISK_FULL},
    {EDQUOT, ERROR_DISK_FULL},
    {EFBIG, ERROR_FILE_TOO_LARGE},
    {EOVERFLOW, ERROR_FILE_TOO_LARGE},
    {EIO, ERROR_IO_DEVICE},
    {EXDEV, ERROR_NOT_SAME_DEVICE},
    {ENAMETOOLONG, ERROR_FILENAME_EXCED_RANGE},
    {EINVAL, ERROR_INVALID_PARAMETER},
    {EFAULT, ERROR_INVALID_PARAMETER},
    {EBADF, ERROR_INVALID_HANDLE},
    {EBUSY, ERROR_BUSY},
    {ETXTBSY, ERROR_SHARING_VIOLATION},
    {EAGAIN, ERROR_SHARING_VIOLATION},  // flock(2) of a held file, open(2) of a leased one
    {ENOLCK, ERROR_NOT_SUPPORTED},
    {ENOSYS, ERROR_NOT_SUPPORTED},
    {EOPNOTSUPP, ERROR_NOT_SUPPORTED},
};

}  // namespace

void SetLastError(DWORD code) {
  lastError = code;
}

DWORD ErrorOf(int errorNumber) {
  for (const Translation& row : kTranslations) {
    if (row.errorNumber == errorNumber) return row.code;
  }
  return ERROR_GEN_FAILURE;
}

DWORD PathErrorOf(int errorNumber, const char* path) {
  if (errorNumber == ENOENT) {
    char buffer[PATH_MAX];
    struct stat status {};
    if (stat(ParentOf(path, buffer), &status) != 0 && errno == ENOENT) return ERROR_PATH_NOT_FOUND;
  }
  return ErrorOf(errorNumber);
}

BOOL Result(DWORD code) {
  SetLastError(code);
  return code == ERROR_SUCCESS ? 1 : 0;
}

}  // namespace platform

DWORD GetLastError() {
  return platform::lastError;
}
