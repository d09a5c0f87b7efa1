#include "platform/posix/FileDescriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/posix/LastError.h"
#include "platform/posix/PathName.h"

namespace platform {

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
  if (this != &other) {
    Close();
    number_ = other.Release();
  }
  return *this;
}

void FileDescriptor::Close() {
  // Not repeated after EINTR: the number may be another thread's by then.
  if (const int number = Release(); number != kNone) close(number);
}

FileDescriptor Open(const char* path, int flags) {
  FileDescriptor file(
      Uninterrupted([=] { return open(path, flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600); }));
  if (file.Number() < 0 || file.Number() > STDERR_FILENO) return file;

  // The host closed a standard stream. If the file took its number, the next
  // message to standard error would land in the file.
  return FileDescriptor(fcntl(file.Number(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

bool LeadsTo(const char* path, const FileDescriptor& file) {
  struct stat named {};
  struct stat open {};
  return stat(path, &named) == 0 && fstat(file.Number(), &open) == 0 &&
         named.st_dev == open.st_dev && named.st_ino == open.st_ino;
}

int SyncData(const FileDescriptor& file) {
  return Uninterrupted([&] { return fdatasync(file.Number()); }) == 0 ? 0 : errno;
}

DWORD OpenParent(const char* path, FileDescriptor& directory) {
  char buffer[PATH_MAX];
  directory = Open(ParentOf(path, buffer), O_RDONLY | O_DIRECTORY);
  if (directory.IsOpen() || errno == EACCES) return ERROR_SUCCESS;
  return errno == ENOENT ? ERROR_PATH_NOT_FOUND : ErrorOf(errno);
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
