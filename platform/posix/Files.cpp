// The calls on an open file.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>

#include "platform/posix/Handles.h"

namespace {

using platform::FileDescriptor;
using platform::Result;

struct OpenFile {
  FileDescriptor file;
  DWORD access = 0;
  off_t position = 0;  // kept here: no system call to move it
  off_t runBegin = 0;  // contiguous writes whose write-back was not started
  off_t runEnd = 0;
  FileDescriptor directory;  // to be synced with the next flush, if syncsName
  bool syncsName = false;
  bool flushFailed = false;
};

constinit platform::HandleTable<OpenFile, 1, 4096, platform::Guarded::Files> files;

// Callers see the low 32 bits of a length. A file that is longer would pass for a short one, and
// what lies behind for free space.
int LengthOf(const OpenFile& file, DWORD& length) {
  struct stat status {};
  if (fstat(file.file.Number(), &status) != 0) return errno;
  if (status.st_size >= INVALID_FILE_SIZE) return EFBIG;
  length = static_cast<DWORD>(status.st_size);
  return 0;
}

int OpenInto(OpenFile& file, const char* path, DWORD disposition) {
  if (file.access == 0) {
    file.file = platform::Open(path, O_PATH);
    return file.file.IsOpen() ? 0 : errno;
  }
  int flags = (file.access & GENERIC_WRITE) == 0  ? O_RDONLY
              : (file.access & GENERIC_READ) != 0 ? O_RDWR
                                                  : O_WRONLY;
  if (disposition == CREATE_NEW) flags |= O_CREAT | O_EXCL;
  if (disposition == OPEN_ALWAYS) flags |= O_CREAT;

  int error = 0;
  file.syncsName = (flags & O_CREAT) != 0;
  if (file.syncsName) {
    // The directory that the file's own name is in is not the path's when the path is a symbolic
    // link.
    char resolved[PATH_MAX];
    error =
        platform::OpenParent(realpath(path, resolved) != nullptr ? resolved : path, file.directory);
  }
  if (error == 0) error = platform::OpenExclusively(path, flags, file.file);
  DWORD length = 0;
  return error == 0 ? LengthOf(file, length) : error;
}

// The open file, if it was opened for `access`. Otherwise null, with the reason as the thread's
// error.
OpenFile* FileFor(DWORD access, HANDLE handle) {
  OpenFile* file = files.Find(handle);
  if (file == nullptr || (file->access & access) != 0) return file;
  return Result(EACCES), nullptr;
}

// A larger write makes the page cache take larger folios, which a virtual machine may have to get
// back from its host: that took six times the processor's time.
constexpr DWORD kMaxWrite = 256 * 1024;

// Write-back starts after so many contiguous bytes, and not only with the flush.
constexpr off_t kMaxRun = 1024 * 1024;
constexpr off_t kPageSize = 4096;

// A file must not pass the process's limit: the signal (SIGXFSZ, setrlimit(2)) ends a process that
// does not expect it.
bool IsPastLimit(off_t end) {
  rlimit limit{};
  return getrlimit(RLIMIT_FSIZE, &limit) == 0 && static_cast<rlim_t>(end) > limit.rlim_cur;
}

// Repeats `transfer(done)`, which moves bytes from `done` on as pread(2) and pwrite(2) do, until
// all `size` are moved, there are no more, or it fails.
template <typename Transfer>
int TransferAll(DWORD size, DWORD& done, Transfer transfer) {
  ssize_t count = 1;
  while (done < size && count > 0) {
    count = platform::Uninterrupted([&] { return transfer(done); });
    if (count > 0) done += static_cast<DWORD>(count);
  }
  return count < 0 ? errno : 0;
}

// After a write at `begin`: the disk works while the caller digests the next blob, and the flush
// finds little left to do. The last page is left out, since the next write changes it. Only a hint:
// sync_file_range(2) with this flag alone leaves errors for the flush to report.
void StartWriteBack(OpenFile& file, off_t begin) {
  if (begin != file.runEnd) file.runBegin = begin;
  file.runEnd = file.position;
  if (file.runEnd - file.runBegin < kMaxRun) return;
  const off_t end = file.runEnd / kPageSize * kPageSize;
  static_cast<void>(sync_file_range(file.file.Number(), file.runBegin, end - file.runBegin,
                                    SYNC_FILE_RANGE_WRITE));
  file.runBegin = end;
}

}  // namespace

// Attributes are those of a plain file. FILE_FLAG_RANDOM_ACCESS is a hint, and the kernel's
// read-ahead does better without it.
HANDLE CreateFileW(const WCHAR* path, DWORD desiredAccess, DWORD /*shareMode*/,
                   SECURITY_ATTRIBUTES* /*security*/, DWORD creationDisposition,
                   DWORD /*flagsAndAttributes*/, HANDLE /*templateFile*/) {
  const platform::PathName name(path);
  std::unique_ptr<OpenFile> file(new (std::nothrow) OpenFile);
  int error = file == nullptr ? ENOMEM : name.error;
  if (creationDisposition != CREATE_NEW && creationDisposition != OPEN_EXISTING &&
      creationDisposition != OPEN_ALWAYS)
    error = EINVAL;
  if (error == 0) {
    file->access = desiredAccess;
    error = OpenInto(*file, name.bytes, creationDisposition);
  }
  HANDLE handle = INVALID_HANDLE_VALUE;
  if (error == 0) {
    handle = files.Add(file.get());
    if (handle == INVALID_HANDLE_VALUE) error = EMFILE;
    if (error == 0) static_cast<void>(file.release());  // the handle's now
  }
  Result(error, name.bytes);
  if (error == EEXIST) platform::SetLastError(ERROR_FILE_EXISTS);
  return handle;
}

BOOL ReadFile(HANDLE file, void* buffer, DWORD size, DWORD* transferred, OVERLAPPED* at) {
  *transferred = 0;
  OpenFile* open = FileFor(GENERIC_READ, file);
  if (open == nullptr) return 0;
  const off_t from = at == nullptr
                         ? open->position
                         : static_cast<off_t>(std::uint64_t{at->OffsetHigh} << 32 | at->Offset);
  const int error = TransferAll(size, *transferred, [&](DWORD done) {
    return pread(open->file.Number(), static_cast<char*>(buffer) + done, size - done, from + done);
  });
  if (at == nullptr) open->position += *transferred;
  return Result(error);
}

BOOL WriteFile(HANDLE file, const void* buffer, DWORD size, DWORD* transferred,
               OVERLAPPED* /*overlapped*/) {
  *transferred = 0;
  OpenFile* open = FileFor(GENERIC_WRITE, file);
  if (open == nullptr) return 0;
  const int error = TransferAll(size, *transferred, [&](DWORD done) -> ssize_t {
    const off_t at = open->position + done;
    // A write that begins before the limit stops at it, without the signal.
    if (!IsPastLimit(at + 1))
      return pwrite(open->file.Number(), static_cast<const char*>(buffer) + done,
                    std::min(size - done, kMaxWrite), at);
    errno = EFBIG;
    return -1;
  });
  const off_t begin = open->position;
  open->position += *transferred;
  StartWriteBack(*open, begin);
  // A write that moves nothing and names no error has no room.
  return Result(error == 0 && *transferred != size ? ENOSPC : error);
}

DWORD SetFilePointer(HANDLE file, LONG distance, LONG* /*distanceHigh*/, DWORD moveMethod) {
  OpenFile* open = files.Find(file);
  if (open == nullptr) return INVALID_SET_FILE_POINTER;
  const off_t target = (moveMethod == FILE_CURRENT ? open->position : 0) + distance;
  const bool isKnown = moveMethod == FILE_BEGIN || moveMethod == FILE_CURRENT;
  if (!isKnown || target < 0 || target >= INVALID_SET_FILE_POINTER) {
    platform::SetLastError(isKnown && target < 0 ? ERROR_NEGATIVE_SEEK : ERROR_INVALID_PARAMETER);
    return INVALID_SET_FILE_POINTER;
  }
  open->position = target;
  Result(0);
  return static_cast<DWORD>(target);
}

// A file may have been lengthened by others since it was opened.
DWORD GetFileSize(HANDLE file, DWORD* /*sizeHigh*/) {
  const OpenFile* open = files.Find(file);
  DWORD length = INVALID_FILE_SIZE;
  if (open != nullptr) Result(LengthOf(*open, length));
  return length;
}

BOOL SetEndOfFile(HANDLE file) {
  const OpenFile* open = FileFor(GENERIC_WRITE, file);
  if (open == nullptr) return 0;
  if (IsPastLimit(open->position)) return Result(EFBIG);
  const int result =
      platform::Uninterrupted([&] { return ftruncate(open->file.Number(), open->position); });
  return Result(result == 0 ? 0 : errno);
}

// The kernel's device numbers have 12 and 20 bits (makedev(3)).
BOOL GetFileInformationByHandle(HANDLE file, BY_HANDLE_FILE_INFORMATION* information) {
  const OpenFile* open = files.Find(file);
  if (open == nullptr) return 0;
  struct stat status {};
  if (fstat(open->file.Number(), &status) != 0) return Result(errno);
  information->dwVolumeSerialNumber = major(status.st_dev) << 20 | minor(status.st_dev);
  information->nFileIndexHigh = static_cast<DWORD>(std::uint64_t{status.st_ino} >> 32);
  information->nFileIndexLow = static_cast<DWORD>(status.st_ino);
  return Result(0);
}

// The first flush of every handle that could have created the file syncs its name as well, even if
// the file was there: the process that created it may have died before its own flush. Data first: a
// name that survives is to lead to the file's contents.
//
// fsync(2) reports a failed write-back once and may mark the pages clean all the same; a second
// call would then call lost data safe. So a handle that failed stays failed, and the cached pages
// go, so that the next opener sees what the disk has. For the same reason a forked child, which has
// written nothing through its copy of the handle, does not ask: the failure is its parent's to
// hear.
BOOL FlushFileBuffers(HANDLE file) {
  OpenFile* open = FileFor(GENERIC_WRITE, file);
  if (open == nullptr) return 0;
  if (!open->file.IsLockedHere()) return Result(0);
  if (open->flushFailed) return Result(EIO);

  int error = platform::SyncData(open->file);
  if (error == 0 && open->syncsName) error = platform::SyncDirectory(open->directory);
  open->syncsName = false;
  open->directory = FileDescriptor();
  open->flushFailed = error != 0;
  if (open->flushFailed)
    static_cast<void>(posix_fadvise(open->file.Number(), 0, 0, POSIX_FADV_DONTNEED));
  return Result(error);
}

// Whatever close(2) returns, the handle and the lock are gone, so this has succeeded. A write that
// failed late is the flush's to report.
BOOL CloseHandle(HANDLE object) {
  const std::unique_ptr<OpenFile> file(files.Remove(object));
  return file != nullptr ? Result(0) : 0;
}

bool platform::IsHeldHere(const char* path) {
  struct stat wanted {};
  if (stat(path, &wanted) != 0) return false;
  return files.HasAny([&](const OpenFile& open) {
    struct stat status {};
    return open.file.IsLockedHere() && fstat(open.file.Number(), &status) == 0 &&
           status.st_dev == wanted.st_dev && status.st_ino == wanted.st_ino;
  });
}
