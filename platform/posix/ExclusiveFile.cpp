#include "platform/posix/ExclusiveFile.h"

#include <fcntl.h>
#include <sys/file.h>

#include "platform/posix/LastError.h"

namespace platform {
namespace {

// How often a name may be moved or deleted under us before we give up. Each
// time another process has got something done.
constexpr int kMaxAttempts = 16;

// Merely opening a device or a FIFO can act on what is behind it, so the
// answer comes before the open (and again after it, see OpenOnce).
DWORD Admit(const struct stat& status, int flags) {
  if (!S_ISREG(status.st_mode)) return ERROR_ACCESS_DENIED;
  if ((flags & O_EXCL) != 0) return ERROR_FILE_EXISTS;
  if ((flags & O_ACCMODE) != O_RDONLY && IsReadOnly(status.st_mode)) return ERROR_ACCESS_DENIED;
  return ERROR_SUCCESS;
}

// One attempt. Sets `again` when the path changed its meaning in between.
DWORD OpenOnce(const char* path, int flags, FileDescriptor& file, bool& again) {
  struct stat status {};
  const bool existed = stat(path, &status) == 0;
  if (!existed && errno != ENOENT) return PathErrorOf(errno, path);
  if (existed) {
    if (const DWORD refusal = Admit(status, flags); refusal != ERROR_SUCCESS) return refusal;
  }

  const bool creates = !existed && (flags & O_CREAT) != 0;
  file = Open(path, creates ? flags | O_EXCL : flags & ~O_CREAT);
  if (!file.IsOpen() && creates && errno == EEXIST) {
    again = stat(path, &status) == 0;
    return (flags & O_EXCL) != 0 ? ERROR_FILE_EXISTS
                                 : ERROR_FILE_NOT_FOUND;  // a link that leads nowhere
  }
  if (!file.IsOpen()) {
    again = existed && errno == ENOENT;
    return PathErrorOf(errno, path);
  }
  if (fstat(file.Number(), &status) != 0) return ErrorOf(errno);
  if (!S_ISREG(status.st_mode)) return ERROR_ACCESS_DENIED;
  if (Uninterrupted([&] { return flock(file.Number(), LOCK_EX | LOCK_NB); }) != 0)
    return ErrorOf(errno);

  // Between open and lock, the holder of that time may have renamed another
  // file over this one or deleted it; what we locked then has no name.
  again = !LeadsTo(path, file);
  return ERROR_SUCCESS;
}

}  // namespace

DWORD OpenExclusively(const char* path, int flags, FileDescriptor& file) {
  DWORD code = ERROR_SHARING_VIOLATION;
  bool again = true;
  for (int attempt = 0; again && attempt < kMaxAttempts; ++attempt) {
    again = false;
    code = OpenOnce(path, flags, file, again);
  }
  if (again) code = ERROR_SHARING_VIOLATION;
  if (code != ERROR_SUCCESS) file.Close();
  return code;
}

}  // namespace platform
