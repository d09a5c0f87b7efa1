#include "platform/posix/Kernel.h"

#include <fcntl.h>
#include <libgen.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstring>

namespace platform {
namespace {

constinit thread_local DWORD lastError = ERROR_SUCCESS;

constexpr struct {
  int error;
  DWORD code;
} kCodes[] = {
    {0, ERROR_SUCCESS},
    {ENOENT, ERROR_FILE_NOT_FOUND},
    {ENOTDIR, ERROR_PATH_NOT_FOUND},
    {ELOOP, ERROR_PATH_NOT_FOUND},
    {EACCES, ERROR_ACCESS_DENIED},
    {EPERM, ERROR_ACCESS_DENIED},
    {EROFS, ERROR_WRITE_PROTECT},
    {EEXIST, ERROR_ALREADY_EXISTS},
    {ENOTEMPTY, ERROR_DIR_NOT_EMPTY},
    {EMFILE, ERROR_TOO_MANY_OPEN_FILES},
    {ENFILE, ERROR_TOO_MANY_OPEN_FILES},
    {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
    {ENOSPC, ERROR_DISK_FULL},
    {EDQUOT, ERROR_DISK_FULL},
    {EFBIG, ERROR_FILE_TOO_LARGE},
    {EIO, ERROR_IO_DEVICE},
    {EXDEV, ERROR_NOT_SAME_DEVICE},
    {EILSEQ, ERROR_INVALID_NAME},
    {ENAMETOOLONG, ERROR_FILENAME_EXCED_RANGE},
    {EINVAL, ERROR_INVALID_PARAMETER},
    {EBADF, ERROR_INVALID_HANDLE},
    {EBUSY, ERROR_BUSY},
    {EAGAIN, ERROR_SHARING_VIOLATION},  // flock(2) of a held file, open(2) of a leased one
    {ENOLCK, ERROR_NOT_SUPPORTED},
    {ENOSYS, ERROR_NOT_SUPPORTED},
    {EOPNOTSUPP, ERROR_NOT_SUPPORTED},
};

DWORD CodeOf(int error) {
  for (const auto& row : kCodes) {
    if (row.error == error) return row.code;
  }
  return ERROR_GEN_FAILURE;
}

// Merely opening a device or a FIFO can act on what is behind it, so the answer comes before the
// open, and again after it.
int Admit(const struct stat& status, int flags) {
  if (!S_ISREG(status.st_mode)) return EACCES;
  if ((flags & O_EXCL) != 0) return EEXIST;
  if ((flags & O_ACCMODE) != O_RDONLY && IsReadOnly(status.st_mode)) return EACCES;
  return 0;
}

// One attempt. ESTALE: the path changed its meaning in between.
int OpenOnce(const char* path, int flags, FileDescriptor& file) {
  struct stat status {};
  const bool existed = stat(path, &status) == 0;
  if (!existed && errno != ENOENT) return errno;
  if (const int refusal = existed ? Admit(status, flags) : 0; refusal != 0) return refusal;

  const bool creates = !existed && (flags & O_CREAT) != 0;
  file = Open(path, creates ? flags | O_EXCL : flags & ~O_CREAT);
  if (!file.IsOpen() && creates && errno == EEXIST) {
    if (stat(path, &status) == 0) return ESTALE;
    return (flags & O_EXCL) != 0 ? EEXIST : ENOENT;  // a link that leads nowhere
  }
  if (!file.IsOpen()) return existed && errno == ENOENT ? ESTALE : errno;
  if (fstat(file.Number(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return EACCES;
  if (const int error = file.Lock(); error != 0) return error;

  // Between open and lock, the holder of that time may have renamed another file over this one or
  // deleted it; what we locked then has no name.
  struct stat named {};
  return stat(path, &named) == 0 && named.st_dev == status.st_dev && named.st_ino == status.st_ino
             ? 0
             : ESTALE;
}

}  // namespace

void SetLastError(DWORD code) {
  lastError = code;
}

BOOL Result(int error) {
  lastError = CodeOf(error);
  return error == 0 ? 1 : 0;
}

BOOL Result(int error, const char* path) {
  char buffer[PATH_MAX];
  struct stat status {};
  const bool lacksParent =
      error == ENOENT && stat(ParentOf(path, buffer), &status) != 0 && errno == ENOENT;
  return Result(lacksParent ? ENOTDIR : error);
}

PathName::PathName(const WCHAR* units) {
  for (std::size_t i = 0; units[i] != 0 && error == 0; ++i) {
    if (units[i] > 0x00FF && units[i] < 0xFF80) {
      error = EILSEQ;
    } else if (i + 1 == sizeof bytes) {
      error = ENAMETOOLONG;
    } else {
      bytes[i] = static_cast<char>(units[i] & 0xFFU);
    }
  }
}

const char* ParentOf(const char* path, char (&buffer)[PATH_MAX]) {
  std::memcpy(buffer, path, std::strlen(path) + 1);
  return dirname(buffer);
}

// The descriptor is released whatever close(2) returns, and the call is not repeated after EINTR:
// the number may be another thread's by then. What must not be lost has been synced before.
FileDescriptor::~FileDescriptor() {
  if (!IsOpen()) return;

  if (IsLockedHere()) flock(number_, LOCK_UN);
  close(number_);
}

int FileDescriptor::Lock() {
  const auto lock = [this](int kind) {
    return Uninterrupted([=, this] { return flock(number_, kind | LOCK_NB); });
  };
  // NFS grants an exclusive lock to writers alone (flock(2)). A reader's then keeps out these.
  if (lock(LOCK_EX) != 0 && (errno != EBADF || lock(LOCK_SH) != 0)) return errno;
  locker_ = GetCurrentProcessId();
  return 0;
}

bool FileDescriptor::IsLockedHere() const {
  return locker_ == GetCurrentProcessId();
}

FileDescriptor Open(const char* path, int flags) {
  FileDescriptor file(
      Uninterrupted([=] { return open(path, flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600); }));
  if (!file.IsOpen() || file.Number() > STDERR_FILENO) return file;

  // The host closed a standard stream. If the file took its number, the next message to standard
  // error would land in the file.
  return FileDescriptor(fcntl(file.Number(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

int OpenExclusively(const char* path, int flags, FileDescriptor& file) {
  for (int attempt = 0; attempt < kMaxRaces; ++attempt) {
    if (const int error = OpenOnce(path, flags, file); error != ESTALE) return error;
  }
  return EAGAIN;
}

int SyncData(const FileDescriptor& file) {
  return Uninterrupted([&] { return fdatasync(file.Number()); }) == 0 ? 0 : errno;
}

int OpenParent(const char* path, FileDescriptor& directory) {
  char buffer[PATH_MAX];
  directory = Open(ParentOf(path, buffer), O_RDONLY | O_DIRECTORY);
  if (directory.IsOpen() || errno == EACCES) return 0;
  return errno == ENOENT ? ENOTDIR : errno;
}

int SyncDirectory(const FileDescriptor& directory) {
  if (!directory.IsOpen()) {
    sync();
    return 0;
  }
  if (Uninterrupted([&] { return fsync(directory.Number()); }) == 0 || errno == EINVAL) return 0;
  return errno;
}

}  // namespace platform

DWORD GetLastError() {
  return platform::lastError;
}
