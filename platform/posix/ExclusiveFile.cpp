#include "platform/posix/ExclusiveFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/posix/LastError.h"

namespace platform {
namespace {

// How often a name may be moved or deleted under us before we give up; each
// time someone else got something done.
constexpr int kMaxAttempts = 16;

bool Writes(int flags) {
  return (flags & O_ACCMODE) != O_RDONLY;
}

DWORD Lock(const FileDescriptor& file) {
  while (flock(file.Number(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) return ERROR_SHARING_VIOLATION;
    if (errno != EINTR) return ErrorOf(errno);
  }
  return ERROR_SUCCESS;
}

// Merely opening a device or a FIFO can act on what is behind it, so the
// answer comes before the open (and again after it, see OpenOnce).
DWORD Admit(const struct stat& status, int flags) {
  if (!S_ISREG(status.st_mode)) return ERROR_ACCESS_DENIED;
  if ((flags & O_EXCL) != 0) return ERROR_FILE_EXISTS;
  if (Writes(flags) && IsReadOnly(status.st_mode)) return ERROR_ACCESS_DENIED;
  return ERROR_SUCCESS;
}

// One attempt. Sets `again` when the path changed its meaning in between.
DWORD OpenOnce(const char* path, int flags, mode_t mode, ExclusiveFile& out, bool& again) {
  struct stat status {};
  out.existed = stat(path, &status) == 0;
  if (out.existed) {
    if (const DWORD refusal = Admit(status, flags); refusal != ERROR_SUCCESS) return refusal;
    flags &= ~O_CREAT;
  } else if (errno != ENOENT) {
    return PathErrorOf(errno, path);
  }

  out.file = Open(path, flags, mode);
  if (!out.file.IsOpen()) {
    again = out.existed && errno == ENOENT;
    return errno == EEXIST ? ERROR_FILE_EXISTS : PathErrorOf(errno, path);
  }
  if (fstat(out.file.Number(), &status) != 0) return ErrorOf(errno);
  if (!S_ISREG(status.st_mode)) return ERROR_ACCESS_DENIED;
  if (const DWORD refusal = Lock(out.file); refusal != ERROR_SUCCESS) return refusal;

  // Between open and lock, the holder of that time may have renamed another
  // file over this one or deleted it; what we locked then has no name.
  again = !LeadsTo(path, out.file);
  return ERROR_SUCCESS;
}

}  // namespace

DWORD OpenExclusively(const char* path, int flags, mode_t mode, ExclusiveFile& out) {
  for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
    bool again = false;
    const DWORD code = OpenOnce(path, flags, mode, out, again);
    if (!again) {
      if (code != ERROR_SUCCESS) out.file.Close();
      return code;
    }
  }
  out.file.Close();
  return ERROR_SHARING_VIOLATION;
}

}  // namespace platform
