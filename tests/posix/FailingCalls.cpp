#include "tests/posix/FailingCalls.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

FailingCalls failing;

namespace {

std::string NameOf(int file) {
  char path[PATH_MAX] = {};
  const std::string link = "/proc/self/fd/" + std::to_string(file);
  if (readlink(link.c_str(), path, sizeof(path) - 1) < 0) return "?";
  const std::string target = path;
  return target.substr(target.rfind('/') + 1);
}

template <typename Real>
int Sync(const char* what, int file, int error, Real real) {
  failing.calls.push_back(what + NameOf(file));
  if (error == 0) return real(file);
  errno = error;
  return -1;
}

void RunBeforeRename() {
  if (const auto hook = std::exchange(failing.beforeRename, nullptr)) hook();
}

template <typename Buffer>
ssize_t Transfer(ssize_t (*real)(int, Buffer*, size_t, off_t), int file, Buffer* buffer, size_t size, off_t offset,
                 int roomError) {
  static bool interrupted = false;
  interrupted = failing.interrupts && !interrupted;
  if (interrupted || failing.room == 0) {
    errno = interrupted ? EINTR : roomError;
    return -1;
  }
  size = std::min(size, failing.room);
  if (failing.maxTransfer != 0) size = std::min(size, failing.maxTransfer);
  const ssize_t done = real(file, buffer, size, offset);
  if (done > 0 && failing.room != SIZE_MAX) failing.room -= static_cast<size_t>(done);
  return done;
}

}  // namespace

// The linker's own names for a call and its replacement (ld(1), --wrap).
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __real_fdatasync(int file);
int __real_fsync(int file);
ssize_t __real_pread(int file, void* buffer, size_t size, off_t offset);
ssize_t __real_pwrite(int file, const void* buffer, size_t size, off_t offset);
int __real_renameat2(int fromDirectory, const char* from, int toDirectory, const char* to, unsigned flags);
int __real_rename(const char* from, const char* to);
int __real_posix_fadvise(int file, off_t offset, off_t length, int advice);

int __wrap_fdatasync(int file) {
  return Sync("data ", file, failing.fdatasyncError, __real_fdatasync);
}

int __wrap_fsync(int file) {
  return Sync("names ", file, failing.fsyncError, __real_fsync);
}

ssize_t __wrap_pread(int file, void* buffer, size_t size, off_t offset) {
  return Transfer(__real_pread, file, buffer, size, offset, EIO);
}

ssize_t __wrap_pwrite(int file, const void* buffer, size_t size, off_t offset) {
  return Transfer(__real_pwrite, file, buffer, size, offset, ENOSPC);
}

ssize_t __wrap_pread64(int file, void* buffer, size_t size, off_t offset) {
  return __wrap_pread(file, buffer, size, offset);
}

ssize_t __wrap_pwrite64(int file, const void* buffer, size_t size, off_t offset) {
  return __wrap_pwrite(file, buffer, size, offset);
}

int __wrap_posix_fadvise(int file, off_t offset, off_t length, int advice) {
  failing.calls.push_back("drop " + NameOf(file));
  return __real_posix_fadvise(file, offset, length, advice);
}

int __wrap_posix_fadvise64(int file, off_t offset, off_t length, int advice) {
  return __wrap_posix_fadvise(file, offset, length, advice);
}

int __wrap_rename(const char* from, const char* to) {
  RunBeforeRename();
  return __real_rename(from, to);
}

int __wrap_renameat2(int fromDirectory, const char* from, int toDirectory, const char* to, unsigned flags) {
  RunBeforeRename();
  if (failing.renameat2Error == 0) return __real_renameat2(fromDirectory, from, toDirectory, to, flags);
  errno = failing.renameat2Error;
  return -1;
}
}
// NOLINTEND(bugprone-reserved-identifier)
