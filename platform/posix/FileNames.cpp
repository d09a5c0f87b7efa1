// The calls that change names: move, delete, directories, attributes.
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/Win32.h"
#include "platform/posix/ExclusiveFile.h"
#include "platform/posix/FileDescriptor.h"
#include "platform/posix/LastError.h"
#include "platform/posix/PathName.h"

namespace {

using platform::ErrorOf;
using platform::ExclusiveFile;
using platform::FileDescriptor;
using platform::ParentOf;
using platform::PathErrorOf;
using platform::PathName;
using platform::Result;

constexpr mode_t kNewDirectoryMode = 0700;
constexpr mode_t kWriteBits = 0222;

// How often the target of a replacement may come and go before we give up.
constexpr int kMaxAttempts = 16;

// Locks the file that path leads to, so that nobody has it open while its
// name is changed. What is no regular file, a link to nothing included, needs
// no lock. ERROR_FILE_NOT_FOUND is an answer to act on: a file made after it
// may be held by whoever made it.
DWORD Hold(const char* path, ExclusiveFile& held) {
  struct stat status {};
  if (stat(path, &status) == 0) {
    return S_ISREG(status.st_mode) ? platform::OpenExclusively(path, O_RDONLY, 0, held) : ERROR_SUCCESS;
  }
  const int failure = errno;
  if (failure == ENOENT && lstat(path, &status) == 0 && S_ISLNK(status.st_mode)) return ERROR_SUCCESS;
  return PathErrorOf(failure, path);
}

// Makes a file's contents durable before its name leads elsewhere. Costs next
// to nothing where its writer has flushed it.
DWORD SyncContents(const ExclusiveFile& held) {
  if (!held.file.IsOpen()) return ERROR_SUCCESS;
  int result = 0;
  do {
    result = fdatasync(held.file.Number());
  } while (result != 0 && errno == EINTR);
  return result == 0 ? ERROR_SUCCESS : ErrorOf(errno);
}

DWORD RenameIfFree(const char* from, const char* to) {
  struct stat status {};
  if (lstat(to, &status) == 0) return ERROR_ALREADY_EXISTS;
  if (errno != ENOENT) return PathErrorOf(errno, to);
  return rename(from, to) == 0 ? ERROR_SUCCESS : PathErrorOf(errno, from);
}

// Renames only if the target is free, in the strictest way that the kernel
// and the file system offer. A second name and then one less is as strict but
// can leave both after a crash; looking first leaves a gap, and is for file
// systems without hard links and for directories.
DWORD RenameNoReplace(const char* from, const char* to) {
  if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return ERROR_SUCCESS;
  if (errno != ENOSYS && errno != EINVAL)
    return PathErrorOf(errno, errno == ENOENT && access(from, F_OK) == 0 ? to : from);
  if (link(from, to) == 0) return unlink(from) == 0 ? ERROR_SUCCESS : PathErrorOf(errno, from);
  if (errno == EEXIST) return ERROR_ALREADY_EXISTS;
  return RenameIfFree(from, to);
}

// Replaces what is there and held. Win32 replaces files only.
DWORD RenameOver(const char* from, const char* to) {
  struct stat status {};
  if (lstat(to, &status) != 0) return PathErrorOf(errno, to);
  if (S_ISDIR(status.st_mode)) return ERROR_ACCESS_DENIED;
  if (S_ISREG(status.st_mode) && platform::IsReadOnly(status.st_mode)) return ERROR_ACCESS_DENIED;
  return rename(from, to) == 0 ? ERROR_SUCCESS : PathErrorOf(errno, from);
}

// A target that is absent cannot be locked, and someone may make and open it
// at any moment: then only a rename that replaces nothing is safe.
DWORD RenameReplacing(const char* from, const char* to) {
  for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
    ExclusiveFile target;
    const DWORD found = Hold(to, target);
    if (found == ERROR_SUCCESS) return RenameOver(from, to);
    if (found != ERROR_FILE_NOT_FOUND) return found;
    const DWORD code = RenameNoReplace(from, to);
    if (code != ERROR_ALREADY_EXISTS) return code;
  }
  return ERROR_SHARING_VIOLATION;
}

DWORD SyncParents(const char* from, const char* to) {
  const PathName source = ParentOf(from);
  const PathName target = ParentOf(to);
  const FileDescriptor directory = platform::Open(target.Text(), O_RDONLY | O_DIRECTORY);
  int failure = directory.IsOpen() ? platform::SyncDirectory(directory) : errno;
  // The new name first: a crash between the two leaves both names, not none.
  if (failure == 0 && !platform::LeadsTo(source.Text(), directory)) failure = platform::SyncDirectory(source.Text());
  return failure == 0 ? ERROR_SUCCESS : ErrorOf(failure);
}

DWORD Move(const WCHAR* fromUnits, const WCHAR* toUnits, bool replaces) {
  const PathName from(fromUnits);
  const PathName to(toUnits);
  if (from.Error() != ERROR_SUCCESS) return from.Error();
  if (to.Error() != ERROR_SUCCESS) return to.Error();

  ExclusiveFile source;  // held until the names have changed
  DWORD code = Hold(from.Text(), source);
  if (code == ERROR_SUCCESS) code = SyncContents(source);
  if (code == ERROR_SUCCESS) {
    code = replaces ? RenameReplacing(from.Text(), to.Text()) : RenameNoReplace(from.Text(), to.Text());
  }
  return code == ERROR_SUCCESS ? SyncParents(from.Text(), to.Text()) : code;
}

DWORD Delete(const char* path) {
  struct stat status {};
  if (lstat(path, &status) != 0) return PathErrorOf(errno, path);
  if (S_ISDIR(status.st_mode)) return ERROR_ACCESS_DENIED;
  if (S_ISREG(status.st_mode) && platform::IsReadOnly(status.st_mode)) return ERROR_ACCESS_DENIED;
  ExclusiveFile held;
  if (const DWORD code = Hold(path, held); code != ERROR_SUCCESS) return code;
  return unlink(path) == 0 ? ERROR_SUCCESS : PathErrorOf(errno, path);
}

// A symbolic link has no attributes of its own, and those of what it leads to
// are not the business of who clears the way to delete the link.
DWORD SetAttributes(const char* path, DWORD attributes) {
  struct stat status {};
  if (lstat(path, &status) != 0) return PathErrorOf(errno, path);
  if (S_ISLNK(status.st_mode)) return ERROR_SUCCESS;
  const bool readOnly = (attributes & FILE_ATTRIBUTE_READONLY) != 0;
  if (readOnly == platform::IsReadOnly(status.st_mode)) return ERROR_SUCCESS;
  const mode_t mode = readOnly ? status.st_mode & ~kWriteBits : status.st_mode | S_IWUSR;
  return chmod(path, mode & 07777) == 0 ? ERROR_SUCCESS : PathErrorOf(errno, path);
}

// The directory's own name is made durable here: a flush of the files in it
// covers their names, not the way to them.
DWORD CreateDirectory(const char* path) {
  if (mkdir(path, kNewDirectoryMode) != 0) return PathErrorOf(errno, path);
  const int failure = platform::SyncDirectory(ParentOf(path).Text());
  return failure == 0 ? ERROR_SUCCESS : ErrorOf(failure);
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
  return OnPath(path, [attributes](const char* name) { return SetAttributes(name, attributes); });
}
