// The calls on an open file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>

#include "platform/Win32.h"
#include "platform/posix/ExclusiveFile.h"
#include "platform/posix/FileDescriptor.h"
#include "platform/posix/Handles.h"
#include "platform/posix/LastError.h"
#include "platform/posix/PathName.h"

namespace {

using platform::FileDescriptor;

struct OpenFile {
  FileDescriptor file;
  FileDescriptor directory;   // open while it is still to be synced, see FlushFileBuffers
  std::int64_t position = 0;  // kept here: no system call to move it
  bool readable = false;
  bool writable = false;
  bool flushFailed = false;
};

constexpr mode_t kNewFileMode = 0600;

struct Disposition {
  DWORD number;
  int flags;
  bool truncates;
};

constexpr Disposition kDispositions[] = {
    {CREATE_NEW, O_CREAT | O_EXCL, false}, {CREATE_ALWAYS, O_CREAT, true}, {OPEN_EXISTING, 0, false},
    {OPEN_ALWAYS, O_CREAT, false},         {TRUNCATE_EXISTING, 0, true},
};

const Disposition* DispositionOf(DWORD number) {
  for (const Disposition& row : kDispositions) {
    if (row.number == number) return &row;
  }
  return nullptr;
}

// The directory that the file's own name is in, which is not the path's when
// the path is a symbolic link.
FileDescriptor OpenDirectoryOf(const char* path) {
  char resolved[PATH_MAX];
  if (realpath(path, resolved) == nullptr) return FileDescriptor();
  return platform::Open(platform::ParentOf(resolved).Text(), O_RDONLY | O_DIRECTORY);
}

// Opens what `path` names into `file`. existed: whether it was there before.
DWORD OpenInto(OpenFile& file, const char* path, const Disposition& disposition, mode_t mode, bool& existed) {
  if (!file.readable && !file.writable) return ERROR_INVALID_PARAMETER;
  if (disposition.truncates && !file.writable) return ERROR_INVALID_PARAMETER;

  const int access = !file.writable ? O_RDONLY : file.readable ? O_RDWR : O_WRONLY;
  platform::ExclusiveFile opened;
  const DWORD code = platform::OpenExclusively(path, access | disposition.flags, mode, opened);
  if (code != ERROR_SUCCESS) return code;

  if ((disposition.flags & O_CREAT) != 0) {
    file.directory = OpenDirectoryOf(path);
    if (!file.directory.IsOpen()) return platform::ErrorOf(errno);
  }
  if (disposition.truncates && ftruncate(opened.file.Number(), 0) != 0) return platform::ErrorOf(errno);
  file.file = std::move(opened.file);
  existed = opened.existed;
  return ERROR_SUCCESS;
}

DWORD Open(const WCHAR* path, DWORD access, const Disposition& disposition, DWORD attributes, HANDLE& handle,
           bool& existed) {
  const platform::PathName name(path);
  if (name.Error() != ERROR_SUCCESS) return name.Error();
  std::unique_ptr<OpenFile> file(new (std::nothrow) OpenFile);
  if (file == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
  file->readable = (access & GENERIC_READ) != 0;
  file->writable = (access & GENERIC_WRITE) != 0;

  const mode_t mode = (attributes & FILE_ATTRIBUTE_READONLY) != 0 ? kNewFileMode & ~0222U : kNewFileMode;
  const DWORD code = OpenInto(*file, name.Text(), disposition, mode, existed);
  if (code != ERROR_SUCCESS) return code;

  handle = platform::AddHandle(platform::HandleKind::File, file.get());
  if (handle == INVALID_HANDLE_VALUE) return ERROR_TOO_MANY_OPEN_FILES;
  static_cast<void>(file.release());  // the handle's now
  return ERROR_SUCCESS;
}

OpenFile* FileOf(HANDLE handle) {
  return static_cast<OpenFile*>(platform::FindHandle(handle, platform::HandleKind::File));
}

// Repeats `transfer(done)`, which moves bytes from `done` on as pread(2) and
// pwrite(2) do, until all `size` are moved, there are no more, or it fails.
template <typename Transfer>
DWORD TransferAll(DWORD size, DWORD& done, Transfer transfer) {
  while (done < size) {
    const ssize_t count = transfer(done);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return platform::ErrorOf(errno);
    if (count == 0) break;
    done += static_cast<DWORD>(count);
  }
  return ERROR_SUCCESS;
}

// Data first: a name that survives is to lead to the file's contents.
int Sync(const OpenFile& file) {
  int result = 0;
  do {
    result = fdatasync(file.file.Number());
  } while (result != 0 && errno == EINTR);
  if (result != 0) return errno;
  return file.directory.IsOpen() ? platform::SyncDirectory(file.directory) : 0;
}

// Where a move starts from; negative when the method is unknown or the length
// cannot be had, with the reason in `code`.
std::int64_t OriginOf(const OpenFile& file, DWORD moveMethod, DWORD& code) {
  struct stat status {};
  switch (moveMethod) {
    case FILE_BEGIN:
      return 0;
    case FILE_CURRENT:
      return file.position;
    case FILE_END:
      if (fstat(file.file.Number(), &status) == 0) return status.st_size;
      code = platform::ErrorOf(errno);
      return -1;
    default:
      code = ERROR_INVALID_PARAMETER;
      return -1;
  }
}

std::int64_t Joined(LONG low, LONG high) {
  return static_cast<std::int64_t>(std::uint64_t{static_cast<std::uint32_t>(high)} << 32 |
                                   static_cast<std::uint32_t>(low));
}

DWORD LowHalf(std::int64_t value) {
  return static_cast<DWORD>(static_cast<std::uint64_t>(value));
}
DWORD HighHalf(std::int64_t value) {
  return static_cast<DWORD>(static_cast<std::uint64_t>(value) >> 32);
}

DWORD FailPointer(DWORD code) {
  platform::SetLastError(code);
  return INVALID_SET_FILE_POINTER;
}

}  // namespace

// What the store never asks for (sharing, security, templates, overlapped
// transfers) is refused rather than done by half. FILE_FLAG_RANDOM_ACCESS is
// a hint, and the kernel's read-ahead does better without it.
HANDLE CreateFileW(const WCHAR* path, DWORD desiredAccess, DWORD shareMode, SECURITY_ATTRIBUTES* security,
                   DWORD creationDisposition, DWORD flagsAndAttributes, HANDLE templateFile) {
  HANDLE handle = INVALID_HANDLE_VALUE;
  bool existed = false;
  DWORD code = ERROR_INVALID_PARAMETER;
  if (shareMode != 0 || security != nullptr || templateFile != 0) {
    code = ERROR_NOT_SUPPORTED;
  } else if (const Disposition* disposition = DispositionOf(creationDisposition); disposition != nullptr) {
    code = Open(path, desiredAccess, *disposition, flagsAndAttributes, handle, existed);
  }

  const bool tellsExisting = creationDisposition == CREATE_ALWAYS || creationDisposition == OPEN_ALWAYS;
  if (code == ERROR_SUCCESS && existed && tellsExisting) code = ERROR_ALREADY_EXISTS;
  platform::SetLastError(code);
  return handle;
}

BOOL ReadFile(HANDLE file, void* buffer, DWORD size, DWORD* transferred, OVERLAPPED* overlapped) {
  if (transferred == nullptr) return platform::Result(ERROR_INVALID_PARAMETER);
  *transferred = 0;
  if (overlapped != nullptr) return platform::Result(ERROR_NOT_SUPPORTED);
  OpenFile* open = FileOf(file);
  if (open == nullptr) return 0;
  if (!open->readable) return platform::Result(ERROR_ACCESS_DENIED);

  const DWORD code = TransferAll(size, *transferred, [&](DWORD done) {
    return pread(open->file.Number(), static_cast<char*>(buffer) + done, size - done, open->position + done);
  });
  open->position += *transferred;
  return platform::Result(code);
}

BOOL WriteFile(HANDLE file, const void* buffer, DWORD size, DWORD* transferred, OVERLAPPED* overlapped) {
  if (transferred == nullptr) return platform::Result(ERROR_INVALID_PARAMETER);
  *transferred = 0;
  if (overlapped != nullptr) return platform::Result(ERROR_NOT_SUPPORTED);
  OpenFile* open = FileOf(file);
  if (open == nullptr) return 0;
  if (!open->writable) return platform::Result(ERROR_ACCESS_DENIED);

  const DWORD code = TransferAll(size, *transferred, [&](DWORD done) {
    return pwrite(open->file.Number(), static_cast<const char*>(buffer) + done, size - done, open->position + done);
  });
  open->position += *transferred;
  // A write that moves nothing and names no error has no room.
  return platform::Result(code == ERROR_SUCCESS && *transferred != size ? ERROR_DISK_FULL : code);
}

DWORD SetFilePointer(HANDLE file, LONG distance, LONG* distanceHigh, DWORD moveMethod) {
  OpenFile* open = FileOf(file);
  if (open == nullptr) return INVALID_SET_FILE_POINTER;

  DWORD code = ERROR_SUCCESS;
  const std::int64_t origin = OriginOf(*open, moveMethod, code);
  if (code != ERROR_SUCCESS) return FailPointer(code);
  const std::int64_t move = distanceHigh != nullptr ? Joined(distance, *distanceHigh) : distance;
  if (move > std::numeric_limits<std::int64_t>::max() - origin) return FailPointer(ERROR_INVALID_PARAMETER);
  const std::int64_t target = origin + move;
  if (target < 0) return FailPointer(ERROR_NEGATIVE_SEEK);
  if (distanceHigh == nullptr && HighHalf(target) != 0) return FailPointer(ERROR_INVALID_PARAMETER);

  open->position = target;
  if (distanceHigh != nullptr) *distanceHigh = static_cast<LONG>(HighHalf(target));
  platform::SetLastError(ERROR_SUCCESS);
  return LowHalf(target);
}

DWORD GetFileSize(HANDLE file, DWORD* sizeHigh) {
  const OpenFile* open = FileOf(file);
  if (open == nullptr) return INVALID_FILE_SIZE;
  struct stat status {};
  if (fstat(open->file.Number(), &status) != 0) {
    platform::SetLastError(platform::ErrorOf(errno));
    return INVALID_FILE_SIZE;
  }
  if (sizeHigh != nullptr) *sizeHigh = HighHalf(status.st_size);
  platform::SetLastError(ERROR_SUCCESS);
  return LowHalf(status.st_size);
}

// The name is synced with the first flush of every handle that could have
// made the file, also of one that found it there: the process that made it
// may have died before it got to its own flush.
//
// fsync(2) reports a failed write-back once and may mark the pages clean all
// the same; a second call would then call lost data safe. So a handle that
// failed stays failed, and the cached pages go, for the next opener to see
// what the disk has.
BOOL FlushFileBuffers(HANDLE file) {
  OpenFile* open = FileOf(file);
  if (open == nullptr) return 0;
  if (!open->writable) return platform::Result(ERROR_ACCESS_DENIED);
  if (open->flushFailed) return platform::Result(ERROR_IO_DEVICE);

  const int failure = Sync(*open);
  open->directory.Close();
  if (failure == 0) return platform::Result(ERROR_SUCCESS);
  open->flushFailed = true;
  static_cast<void>(posix_fadvise(open->file.Number(), 0, 0, POSIX_FADV_DONTNEED));  // the flush has failed already
  return platform::Result(platform::ErrorOf(failure));
}

BOOL CloseHandle(HANDLE object) {
  void* found = platform::RemoveHandle(object, platform::HandleKind::File);
  if (found == nullptr) return 0;
  const std::unique_ptr<OpenFile> file(static_cast<OpenFile*>(found));
  const int failure = file->file.Close();
  return platform::Result(failure == 0 ? ERROR_SUCCESS : platform::ErrorOf(failure));
}
