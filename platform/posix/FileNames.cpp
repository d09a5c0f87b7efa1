// The calls that change names: move, delete, directories, attributes.
//
// Whether a change of names will survive a power cut is known only after its directory was synced.
// Where that fails, the change is taken back, so that failure means that nothing happened. A file
// that was replaced cannot be brought back: then failure means that the outcome is in doubt.
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cstring>
#include <string_view>

#include "platform/posix/Kernel.h"

namespace {

using platform::FileDescriptor;
using platform::PathName;
using platform::Result;

// Locks the file that path leads to, so that no opener has it while its name is changed. What is
// not a regular file, a link to nothing included, needs no lock. ENOENT is an answer to act on: a
// file made after it may be held by its creator. EACCES: we may not open the file.
int Hold(const char* path, FileDescriptor& held) {
  struct stat status {};
  if (stat(path, &status) != 0) {
    const int error = errno;
    const bool isLink = lstat(path, &status) == 0 && S_ISLNK(status.st_mode);
    return error == ENOENT && isLink ? 0 : error;
  }
  return S_ISREG(status.st_mode) ? platform::OpenExclusively(path, O_RDONLY, held) : 0;
}

// Hold for a change that takes rights on the directory alone: a file that we may not open is not
// locked.
int HoldIfAllowed(const char* path, FileDescriptor& held) {
  const int error = Hold(path, held);
  return error == EACCES ? 0 : error;
}

// Renames only if the target is free. Where the file system cannot promise it (NFS), a second name
// and then one less is as strict, but a crash in between leaves both.
int RenameNoReplace(const char* from, const char* to) {
  if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL || link(from, to) != 0) return errno;
  if (unlink(from) == 0) return 0;
  const int error = errno;
  unlink(to);
  return error;
}

// A file that may not be deleted or replaced, by the rules of Win32.
bool IsProtected(const struct stat& status) {
  return S_ISDIR(status.st_mode) ||
         (S_ISREG(status.st_mode) && platform::IsReadOnly(status.st_mode));
}

// A target that is absent cannot be locked, and another process may make and open it at any moment:
// then only a rename that replaces nothing is safe.
int RenameReplacing(const char* from, const char* to, bool areOurs) {
  for (int attempt = 0; attempt < platform::kMaxRaces; ++attempt) {
    FileDescriptor target;
    int error = areOurs ? 0 : Hold(to, target);
    if (error == 0) {
      struct stat status {};
      if (lstat(to, &status) != 0) return errno;
      if (IsProtected(status)) return EACCES;
      return rename(from, to) == 0 ? 0 : errno;
    }
    if (error == ENOENT) error = RenameNoReplace(from, to);
    if (error != EEXIST) return error;
  }
  return EAGAIN;
}

int Move(const char* from, const char* to, bool replaces) {
  FileDescriptor source;  // held until the names have changed
  FileDescriptor sourceDirectory;
  FileDescriptor targetDirectory;
  const bool areOurs = replaces && platform::IsHeldHere(from) && platform::IsHeldHere(to);
  int error = areOurs ? 0 : HoldIfAllowed(from, source);
  if (error == 0) error = platform::OpenParent(from, sourceDirectory);
  if (error == 0) error = platform::OpenParent(to, targetDirectory);
  // Contents before the name: costs next to nothing where the writer flushed.
  if (error == 0 && source.IsOpen()) error = platform::SyncData(source);
  if (error == 0) error = replaces ? RenameReplacing(from, to, areOurs) : RenameNoReplace(from, to);
  if (error != 0) return error;

  // The new name first: a crash between the two leaves both names, not none.
  error = platform::SyncDirectory(targetDirectory);
  if (error == 0) error = platform::SyncDirectory(sourceDirectory);
  if (error != 0 && !replaces) RenameNoReplace(to, from);
  return error;
}

// A symbolic link is deleted as itself, whatever it leads to.
int Delete(const char* path) {
  struct stat status {};
  if (lstat(path, &status) != 0) return errno;
  if (IsProtected(status)) return EACCES;
  FileDescriptor held;
  const int error = S_ISREG(status.st_mode) ? HoldIfAllowed(path, held) : 0;
  if (error != 0) return error;
  return unlink(path) == 0 ? 0 : errno;
}

// Makes a read-only file or directory a plain one. A symbolic link has no attributes of its own,
// and what it leads to is left alone: a caller that clears the way to delete the link means the
// link.
int ClearAttributes(const char* path) {
  struct stat status {};
  if (lstat(path, &status) != 0) return errno;
  if (!platform::IsReadOnly(status.st_mode)) return 0;
  return chmod(path, (status.st_mode & 07777) | S_IWUSR) == 0 ? 0 : errno;
}

// The directory's own name is made durable here: a flush of the files in it covers their names, not
// the way to them.
int MakeDirectory(const char* path) {
  FileDescriptor parent;
  if (const int error = platform::OpenParent(path, parent); error != 0) return error;
  if (mkdir(path, 0700) != 0) return errno;
  const int error = platform::SyncDirectory(parent);
  if (error != 0) rmdir(path);
  return error;
}

int RemoveDirectory(const char* path) {
  if (rmdir(path) == 0) return 0;
  return errno == EEXIST ? ENOTEMPTY : errno;  // POSIX allows either
}

// Runs `operation` on the bytes of a path.
BOOL OnPath(const WCHAR* units, int (*operation)(const char*)) {
  const PathName path(units);
  return Result(path.error != 0 ? path.error : operation(path.bytes), path.bytes);
}

}  // namespace

BOOL DeleteFileW(const WCHAR* path) {
  return OnPath(path, Delete);
}

BOOL MoveFileW(const WCHAR* from, const WCHAR* to) {
  return MoveFileExW(from, to, 0);
}

BOOL MoveFileExW(const WCHAR* from, const WCHAR* to, DWORD flags) {
  const PathName source(from);
  const PathName target(to);
  int error = source.error != 0 ? source.error : target.error;
  if (error == 0) error = Move(source.bytes, target.bytes, flags == MOVEFILE_REPLACE_EXISTING);
  return Result(error, source.bytes);
}

BOOL CreateDirectoryW(const WCHAR* path, SECURITY_ATTRIBUTES* /*security*/) {
  return OnPath(path, MakeDirectory);
}

BOOL RemoveDirectoryW(const WCHAR* path) {
  return OnPath(path, RemoveDirectory);
}

BOOL SetFileAttributesW(const WCHAR* path, DWORD /*attributes*/) {
  return OnPath(path, ClearAttributes);
}

// "." and ".." stay: what ".." leads to depends on symbolic links.
DWORD GetFullPathNameW(const WCHAR* path, DWORD capacity, WCHAR* buffer, WCHAR** /*filePart*/) {
  char directory[PATH_MAX] = "";
  int error = *path == 0 ? EILSEQ : 0;
  if (*path != u'/' && getcwd(directory, sizeof directory - 1) == nullptr) error = errno;
  if (Result(error) == 0) return 0;
  std::size_t head = std::strlen(directory);
  if (head > 1) directory[head++] = '/';
  const std::u16string_view tail(path);
  const auto length = static_cast<DWORD>(head + tail.size());
  if (length >= capacity) return length + 1;
  for (std::size_t i = 0; i < head; ++i) buffer[i] = platform::Widened(directory[i]);
  tail.copy(buffer + head, tail.size());
  buffer[length] = 0;
  return length;
}
