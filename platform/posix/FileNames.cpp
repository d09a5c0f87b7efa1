// The calls that change names: move, delete, directories, attributes.
//
// Whether a change of names will survive a power cut is known only after its
// directory was synced. Where that fails, the change is taken back, so that
// failure means that nothing happened. A file that was replaced cannot be
// brought back: then failure means that the outcome is in doubt.
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cstring>

#include "platform/Win32.h"
#include "platform/posix/ExclusiveFile.h"
#include "platform/posix/FileDescriptor.h"
#include "platform/posix/LastError.h"
#include "platform/posix/PathName.h"

namespace {

using platform::ErrorOf;
using platform::FileDescriptor;
using platform::PathErrorOf;
using platform::PathName;
using platform::Result;

// How often the target of a replacement may come and go before we give up.
constexpr int kMaxAttempts = 16;

// Locks the file that path leads to, so that no opener has it while its
// name is changed. What is no regular file, a link to nothing included, needs
// no lock. ERROR_FILE_NOT_FOUND is an answer to act on: a file made after it
// may be held by its creator. ERROR_ACCESS_DENIED: we may not open the file.
DWORD Hold(const char* path, FileDescriptor& held) {
  struct stat status {};
  if (stat(path, &status) != 0) {
    const int failure = errno;
    if (failure == ENOENT && lstat(path, &status) == 0 && S_ISLNK(status.st_mode))
      return ERROR_SUCCESS;
    return PathErrorOf(failure, path);
  }
  if (!S_ISREG(status.st_mode)) return ERROR_SUCCESS;
  const DWORD code = platform::OpenExclusively(path, O_RDONLY, held);
  return code == ERROR_ACCESS_DENIED ? platform::OpenExclusively(path, O_WRONLY, held) : code;
}

// Hold for a change that takes rights on the directory alone: a file that we
// may not open is not locked.
DWORD HoldIfAllowed(const char* path, FileDescriptor& held) {
  const DWORD code = Hold(path, held);
  return code == ERROR_ACCESS_DENIED ? ERROR_SUCCESS : code;
}

// Renames only if the target is free. Where the file system cannot promise it
// (NFS), a second name and then one less is as strict, but a crash in between
// leaves both.
DWORD RenameNoReplace(const char* from, const char* to) {
  if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return ERROR_SUCCESS;
  if (errno != EINVAL || link(from, to) != 0) return PathErrorOf(errno, from);
  if (unlink(from) == 0) return ERROR_SUCCESS;
  const DWORD code = PathErrorOf(errno, from);
  unlink(to);
  return code;
}

// A file that may not be deleted or replaced, by the rules of Win32.
bool IsProtected(const struct stat& status) {
  return S_ISDIR(status.st_mode) ||
         (S_ISREG(status.st_mode) && platform::IsReadOnly(status.st_mode));
}

// Replaces what is there and held.
DWORD RenameOver(const char* from, const char* to) {
  struct stat status {};
  if (lstat(to, &status) != 0) return PathErrorOf(errno, to);
  if (IsProtected(status)) return ERROR_ACCESS_DENIED;
  return rename(from, to) == 0 ? ERROR_SUCCESS : PathErrorOf(errno, from);
}

// A target that is absent cannot be locked, and another process may make and
// open it at any moment: then only a rename that replaces nothing is safe.
DWORD RenameReplacing(const char* from, const char* to) {
  for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
    FileDescriptor target;
    const DWORD found = Hold(to, target);
    if (found == ERROR_SUCCESS) return RenameOver(from, to);
    if (found != ERROR_FILE_NOT_FOUND) return found;
    const DWORD code = RenameNoReplace(from, to);
    if (code != ERROR_ALREADY_EXISTS) return code;
  }
  return ERROR_SHARING_VIOLATION;
}

DWORD Move(const WCHAR* fromUnits, const WCHAR* toUnits, bool replaces) {
  const PathName from(fromUnits);
  const PathName to(toUnits);
  if (from.Error() != ERROR_SUCCESS) return from.Error();
  if (to.Error() != ERROR_SUCCESS) return to.Error();

  FileDescriptor source;  // held until the names have changed
  FileDescriptor sourceDirectory;
  FileDescriptor targetDirectory;
  DWORD code = HoldIfAllowed(from.Text(), source);
  if (code == ERROR_SUCCESS) code = platform::OpenParent(from.Text(), sourceDirectory);
  if (code == ERROR_SUCCESS) code = platform::OpenParent(to.Text(), targetDirectory);
  // Contents before the name: costs next to nothing where the writer flushed.
  if (code == ERROR_SUCCESS && source.IsOpen()) code = ErrorOf(platform::SyncData(source));
  if (code == ERROR_SUCCESS) {
    code = replaces ? RenameReplacing(from.Text(), to.Text())
                    : RenameNoReplace(from.Text(), to.Text());
  }
  if (code != ERROR_SUCCESS) return code;

  // The new name first: a crash between the two leaves both names, not none.
  int failure = platform::SyncDirectory(targetDirectory);
  if (failure == 0) failure = platform::SyncDirectory(sourceDirectory);
  if (failure != 0 && !replaces) RenameNoReplace(to.Text(), from.Text());
  return ErrorOf(failure);
}

// A symbolic link is deleted as itself, whatever it leads to.
DWORD Delete(const char* path) {
  struct stat status {};
  if (lstat(path, &status) != 0) return PathErrorOf(errno, path);
  if (IsProtected(status)) return ERROR_ACCESS_DENIED;
  FileDescriptor held;
  const DWORD code = S_ISREG(status.st_mode) ? HoldIfAllowed(path, held) : ERROR_SUCCESS;
  if (code != ERROR_SUCCESS) return code;
  return unlink(path) == 0 ? ERROR_SUCCESS : PathErrorOf(errno, path);
}

// Makes a read-only file or directory a plain one. A symbolic link has no
// attributes of its own, and what it leads to is left alone: who clears the
// way to delete the link means the link.
DWORD ClearAttributes(const char* path) {
  struct stat status {};
  if (lstat(path, &status) != 0) return PathErrorOf(errno, path);
  if (S_ISLNK(status.st_mode) || !platform::IsReadOnly(status.st_mode)) return ERROR_SUCCESS;
  return chmod(path, (status.st_mode & 07777) | S_IWUSR) == 0 ? ERROR_SUCCESS
                                                              : PathErrorOf(errno, path);
}

// The directory's own name is made durable here: a flush of the files in it
// covers their names, not the way to them.
DWORD CreateDirectory(const char* path) {
  FileDescriptor parent;
  if (const DWORD code = platform::OpenParent(path, parent); code != ERROR_SUCCESS) return code;
  if (mkdir(path, 0700) != 0) return PathErrorOf(errno, path);
  const int failure = platform::SyncDirectory(parent);
  if (failure != 0) rmdir(path);
  return ErrorOf(failure);
}

DWORD RemoveDirectory(const char* path) {
  if (rmdir(path) == 0) return ERROR_SUCCESS;
  return errno == EEXIST ? ERROR_DIR_NOT_EMPTY : PathErrorOf(errno, path);  // POSIX allows either
}

// Runs `operation` on the bytes of a path.
template <typename Operation>
BOOL OnPath(const WCHAR* units, Operation operation) {
  const PathName path(units);
  return Result(path.Error() != ERROR_SUCCESS ? path.Error() : operation(path.Text()));
}

}  // namespace

BOOL DeleteFileW(const WCHAR* path) {
  return OnPath(path, Delete);
}

BOOL MoveFileW(const WCHAR* from, const WCHAR* to) {
  return Result(Move(from, to, false));
}

BOOL MoveFileExW(const WCHAR* from, const WCHAR* to, DWORD flags) {
  if ((flags & ~MOVEFILE_REPLACE_EXISTING) != 0) return Result(ERROR_NOT_SUPPORTED);
  return Result(Move(from, to, flags == MOVEFILE_REPLACE_EXISTING));
}

BOOL CreateDirectoryW(const WCHAR* path, SECURITY_ATTRIBUTES* security) {
  if (security != nullptr) return Result(ERROR_NOT_SUPPORTED);
  return OnPath(path, CreateDirectory);
}

BOOL RemoveDirectoryW(const WCHAR* path) {
  return OnPath(path, RemoveDirectory);
}

BOOL SetFileAttributesW(const WCHAR* path, DWORD attributes) {
  if (attributes != FILE_ATTRIBUTE_NORMAL) return Result(ERROR_NOT_SUPPORTED);
  return OnPath(path, ClearAttributes);
}

// "." and ".." stay: what ".." leads to depends on symbolic links.
DWORD GetFullPathNameW(const WCHAR* path, DWORD capacity, WCHAR* buffer, WCHAR** filePart) {
  if (path == nullptr || *path == 0) return static_cast<DWORD>(Result(ERROR_INVALID_NAME));
  char directory[PATH_MAX] = "";
  if (*path != u'/' && getcwd(directory, sizeof directory - 1) == nullptr)
    return static_cast<DWORD>(Result(ErrorOf(errno)));
  std::size_t head = std::strlen(directory);
  if (head > 1) directory[head++] = '/';
  const std::u16string_view tail(path);
  platform::SetLastError(ERROR_SUCCESS);
  const auto length = static_cast<DWORD>(head + tail.size());
  if (length >= capacity) return length + 1;
  for (std::size_t i = 0; i < head; ++i) buffer[i] = platform::Widened(directory[i]);
  tail.copy(buffer + head, tail.size());
  buffer[length] = 0;
  if (filePart != nullptr) {
    const std::size_t slash = std::u16string_view(buffer, length).rfind(u'/');
    *filePart = slash + 1 == length ? nullptr : buffer + slash + 1;
  }
  return length;
}
