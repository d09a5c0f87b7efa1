#include "platform/posix/FileDescriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace platform {

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
  if (this != &other) {
    Close();
    number_ = std::exchange(other.number_, kNone);
  }
  return *this;
}

int FileDescriptor::Close() {
  const int number = std::exchange(number_, kNone);
  // After EINTR the descriptor is gone as well (close(2), Linux), and its
  // number may be another thread's by now: closing again would be wrong.
  if (number == kNone || close(number) == 0 || errno == EINTR) return 0;
  return errno;
}

FileDescriptor Open(const char* path, int flags, mode_t mode) {
  int number = -1;
  do {
    number = open(path, flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, mode);
  } while (number < 0 && errno == EINTR);
  FileDescriptor file(number);
  if (number < 0 || number > STDERR_FILENO) return file;

  // The host closed a standard stream. Were the file to take its number, the
  // next message to standard error would land in the file.
  return FileDescriptor(fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

bool LeadsTo(const char* path, const FileDescriptor& file) {
  struct stat named {};
  struct stat open {};
  return stat(path, &named) == 0 && fstat(file.Number(), &open) == 0 && named.st_dev == open.st_dev &&
         named.st_ino == open.st_ino;
}

int SyncDirectory(const FileDescriptor& directory) {
  int result = 0;
  do {
    result = fsync(directory.Number());
  } while (result != 0 && errno == EINTR);
  return result == 0 || errno == EINVAL ? 0 : errno;
}

int SyncDirectory(const char* path) {
  const FileDescriptor directory = Open(path, O_RDONLY | O_DIRECTORY);
  return directory.IsOpen() ? SyncDirectory(directory) : errno;
}

}  // namespace platform
