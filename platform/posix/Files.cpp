// The calls on an open file.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <new>

#include "platform/Win32.h"
#include "platform/posix/ExclusiveFile.h"
#include "platform/posix/FileDescriptor.h"
#include "platform/posix/Handles.h"
#include "platform/posix/LastError.h"
#include "platform/posix/PathName.h"

namespace {

using platform::ErrorOf;
using platform::FileDescriptor;
using platform::PathErrorOf;
using platform::PathName;
using platform::Result;
using platform::SetLastError;

struct OpenFile {
  FileDescriptor file;
  DWORD access = 0;
  off_t position = 0;        // kept here: no system call to move it
  FileDescriptor directory;  // to be synced with the next flush, if syncsName
  bool syncsName = false;
  bool flushFailed = false;
};

constexpr int kUnknownDisposition = -1;

int FlagsOf(DWORD access, DWORD disposition) {
  const int accessFlags = (access & GENERIC_WRITE) == 0  ? O_RDONLY
                          : (access & GENERIC_READ) != 0 ? O_RDWR
                                                         : O_WRONLY;
  switch (disposition) {
    case CREATE_NEW:
      return accessFlags | O_CREAT | O_EXCL;
    case OPEN_EXISTING:
      return accessFlags;
    case OPEN_ALWAYS:
      return accessFlags | O_CREAT;
    default:
      return kUnknownDisposition;
  }
}

DWORD OpenToQuery(const char* path, int flags, OpenFile& file) {
  if (flags != O_RDONLY) return ERROR_INVALID_PARAMETER;
  file.file = platform::Open(path, O_PATH);
  if (!file.file.IsOpen()) return PathErrorOf(errno, path);
  struct stat status {};
  if (fstat(file.file.Number(), &status) != 0) return ErrorOf(errno);
  return S_ISREG(status.st_mode) ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
}

// The directory that the file's own name is in is not the path's when the
// path is a symbolic link.
DWORD OpenDirectoryOf(const char* path, FileDescriptor& directory) {
  char resolved[PATH_MAX];
  return platform::OpenParent(realpath(path, resolved) != nullptr ? resolved : path, directory);
}

// Callers see the low 32 bits of a length. A file that is longer would pass
// for a short one, and what lies behind for free space.
DWORD AdmitLength(const FileDescriptor& file) {
  struct stat status {};
  if (fstat(file.Number(), &status) != 0) return ErrorOf(errno);
  return status.st_size < INVALID_FILE_SIZE ? ERROR_SUCCESS : ERROR_FILE_TOO_LARGE;
}

DWORD OpenInto(OpenFile& file, const char* path, DWORD disposition) {
  const int flags = FlagsOf(file.access, disposition);
  if (flags == kUnknownDisposition) return ERROR_INVALID_PARAMETER;
  if (file.access == 0) return OpenToQuery(path, flags, file);

  file.syncsName = (flags & O_CREAT) != 0;
  DWORD code = file.syncsName ? OpenDirectoryOf(path, file.directory) : ERROR_SUCCESS;
  if (code == ERROR_SUCCESS) code = platform::OpenExclusively(path, flags, file.file);
  return code == ERROR_SUCCESS ? AdmitLength(file.file) : code;
}

DWORD Open(const WCHAR* path, DWORD access, DWORD disposition, HANDLE& handle) {
  const PathName name(path);
  if (name.Error() != ERROR_SUCCESS) return name.Error();
  std::unique_ptr<OpenFile> file(new (std::nothrow) OpenFile);
  if (file == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
  file->access = access & (GENERIC_READ | GENERIC_WRITE);
  if (const DWORD code = OpenInto(*file, name.Text(), disposition); code != ERROR_SUCCESS)
    return code;

  handle = platform::AddHandle(platform::HandleKind::File, file.get());
  if (handle == INVALID_HANDLE_VALUE) return ERROR_TOO_MANY_OPEN_FILES;
  static_cast<void>(file.release());  // the handle's now
  return ERROR_SUCCESS;
}

OpenFile* FileOf(HANDLE handle) {
  return static_cast<OpenFile*>(platform::FindHandle(handle, platform::HandleKind::File));
}

// The open file, if it was opened for `access`. Otherwise null, with the
// reason as the thread's error.
OpenFile* FileFor(DWORD access, HANDLE handle) {
  OpenFile* file = FileOf(handle);
  if (file == nullptr || (file->access & access) != 0) return file;
  SetLastError(ERROR_ACCESS_DENIED);
  return nullptr;
}

// A file must not pass the process's limit: the signal (SIGXFSZ, setrlimit(2))
// ends a process that does not expect it.
bool IsPastLimit(off_t end) {
  rlimit limit{};
  return getrlimit(RLIMIT_FSIZE, &limit) == 0 && static_cast<rlim_t>(end) > limit.rlim_cur;
}

// Repeats `transfer(done)`, which moves bytes from `done` on as pread(2) and
// pwrite(2) do, until all `size` are moved, there are no more, or it fails.
template <typename Transfer>
DWORD TransferAll(DWORD size, DWORD& done, Transfer transfer) {
  while (done < size) {
    const ssize_t count = platform::Uninterrupted([&] { return transfer(done); });
    if (count < 0) return ErrorOf(errno);
    if (count == 0) break;
    done += static_cast<DWORD>(count);
  }
  return ERROR_SUCCESS;
}

}  // namespace

// What the store never asks for (sharing, security, templates, overlapped
// transfers) is refused rather than done by half. Attributes are those of a
// plain file; FILE_FLAG_RANDOM_ACCESS is a hint, and the kernel's read-ahead
// does better without it.
HANDLE CreateFileW(const WCHAR* path, DWORD desiredAccess, DWORD shareMode,
                   SECURITY_ATTRIBUTES* security, DWORD creationDisposition,
                   DWORD /*flagsAndAttributes*/, HANDLE templateFile) {
  HANDLE handle = INVALID_HANDLE_VALUE;
  const bool isSupported = shareMode == 0 && security == nullptr && templateFile == 0;
  SetLastError(isSupported ? Open(path, desiredAccess, creationDisposition, handle)
                           : ERROR_NOT_SUPPORTED);
  return handle;
}

BOOL ReadFile(HANDLE file, void* buffer, DWORD size, DWORD* transferred, OVERLAPPED* overlapped) {
  if (transferred == nullptr) return Result(ERROR_INVALID_PARAMETER);
  *transferred = 0;
  if (overlapped != nullptr) return Result(ERROR_NOT_SUPPORTED);
  OpenFile* open = FileFor(GENERIC_READ, file);
  if (open == nullptr) return 0;

  const DWORD code = TransferAll(size, *transferred, [&](DWORD done) {
    return pread(open->file.Number(), static_cast<char*>(buffer) + done, size - done,
                 open->position + done);
  });
  open->position += *transferred;
  return Result(code);
}

BOOL WriteFile(HANDLE file, const void* buffer, DWORD size, DWORD* transferred,
               OVERLAPPED* overlapped) {
  if (transferred == nullptr) return Result(ERROR_INVALID_PARAMETER);
  *transferred = 0;
  if (overlapped != nullptr) return Result(ERROR_NOT_SUPPORTED);
  OpenFile* open = FileFor(GENERIC_WRITE, file);
  if (open == nullptr) return 0;

  const DWORD code = TransferAll(size, *transferred, [&](DWORD done) -> ssize_t {
    const off_t at = open->position + done;
    // A write that begins before the limit stops at it, without the signal.
    if (!IsPastLimit(at + 1))
      return pwrite(open->file.Number(), static_cast<const char*>(buffer) + done, size - done, at);
    errno = EFBIG;
    return -1;
  });
  open->position += *transferred;
  // A write that moves nothing and names no error has no room.
  return Result(code == ERROR_SUCCESS && *transferred != size ? ERROR_DISK_FULL : code);
}

DWORD SetFilePointer(HANDLE file, LONG distance, LONG* distanceHigh, DWORD moveMethod) {
  OpenFile* open = FileOf(file);
  if (open == nullptr) return INVALID_SET_FILE_POINTER;

  DWORD code = ERROR_SUCCESS;
  const off_t target = (moveMethod == FILE_CURRENT ? open->position : 0) + distance;
  if (distanceHigh != nullptr || moveMethod > FILE_CURRENT || target >= INVALID_SET_FILE_POINTER) {
    code = ERROR_INVALID_PARAMETER;
  } else if (target < 0) {
    code = ERROR_NEGATIVE_SEEK;
  } else {
    open->position = target;
  }
  SetLastError(code);
  return code == ERROR_SUCCESS ? static_cast<DWORD>(target) : INVALID_SET_FILE_POINTER;
}

// A length that does not fit is a failure unless the caller takes the high
// half: a file may have been lengthened by others since it was opened.
DWORD GetFileSize(HANDLE file, DWORD* sizeHigh) {
  const OpenFile* open = FileOf(file);
  if (open == nullptr) return INVALID_FILE_SIZE;
  struct stat status {};
  DWORD code = fstat(open->file.Number(), &status) == 0 ? ERROR_SUCCESS : ErrorOf(errno);
  if (status.st_size >= INVALID_FILE_SIZE && sizeHigh == nullptr) code = ERROR_FILE_TOO_LARGE;
  SetLastError(code);
  if (code != ERROR_SUCCESS) return INVALID_FILE_SIZE;
  if (sizeHigh != nullptr) *sizeHigh = static_cast<DWORD>(status.st_size >> 32);
  return static_cast<DWORD>(status.st_size);
}

BOOL SetEndOfFile(HANDLE file) {
  const OpenFile* open = FileFor(GENERIC_WRITE, file);
  if (open == nullptr) return 0;
  if (IsPastLimit(open->position)) return Result(ERROR_FILE_TOO_LARGE);
  const int result =
      platform::Uninterrupted([&] { return ftruncate(open->file.Number(), open->position); });
  return Result(result == 0 ? ERROR_SUCCESS : ErrorOf(errno));
}

// The kernel's device numbers have 12 and 20 bits (makedev(3)). Times are left
// out: the store never asks for them.
BOOL GetFileInformationByHandle(HANDLE file, BY_HANDLE_FILE_INFORMATION* information) {
  if (information == nullptr) return Result(ERROR_INVALID_PARAMETER);
  const OpenFile* open = FileOf(file);
  if (open == nullptr) return 0;
  struct stat status {};
  if (fstat(open->file.Number(), &status) != 0) return Result(ErrorOf(errno));
  *information = {};
  information->dwFileAttributes =
      platform::IsReadOnly(status.st_mode) ? FILE_ATTRIBUTE_READONLY : FILE_ATTRIBUTE_NORMAL;
  information->dwVolumeSerialNumber = major(status.st_dev) << 20 | minor(status.st_dev);
  information->nFileSizeHigh = static_cast<DWORD>(status.st_size >> 32);
  information->nFileSizeLow = static_cast<DWORD>(status.st_size);
  information->nNumberOfLinks = static_cast<DWORD>(status.st_nlink);
  information->nFileIndexHigh = static_cast<DWORD>(std::uint64_t{status.st_ino} >> 32);
  information->nFileIndexLow = static_cast<DWORD>(status.st_ino);
  return Result(ERROR_SUCCESS);
}

// The first flush of every handle that could have created the file syncs its
// name as well, even if the file was there: the process that created it may
// have died before its own flush. Data first: a name that survives is to lead
// to the file's contents.
//
// fsync(2) reports a failed write-back once and may mark the pages clean all
// the same; a second call would then call lost data safe. So a handle that
// failed stays failed, and the cached pages go, so that the next opener sees
// what the disk has.
BOOL FlushFileBuffers(HANDLE file) {
  OpenFile* open = FileFor(GENERIC_WRITE, file);
  if (open == nullptr) return 0;
  if (open->flushFailed) return Result(ERROR_IO_DEVICE);

  int failure = platform::SyncData(open->file);
  if (failure == 0 && open->syncsName) failure = platform::SyncDirectory(open->directory);
  open->syncsName = false;
  open->directory.Close();
  if (failure == 0) return Result(ERROR_SUCCESS);
  open->flushFailed = true;
  static_cast<void>(posix_fadvise(open->file.Number(), 0, 0,
                                  POSIX_FADV_DONTNEED));  // the flush has failed already
  return Result(ErrorOf(failure));
}

// Whatever close(2) returns, the handle and the lock are gone, so this has
// succeeded. A write that failed late is the flush's to report.
BOOL CloseHandle(HANDLE object) {
  void* file = platform::RemoveHandle(object, platform::HandleKind::File);
  delete static_cast<OpenFile*>(file);
  return file != nullptr ? Result(ERROR_SUCCESS) : 0;
}
