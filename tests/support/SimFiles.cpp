#include "tests/support/SimFiles.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "tests/support/SimDiagnostics.h"

namespace sim {

namespace {

constexpr std::uint64_t kLargestFile = 0x7FFFFFFF;

std::string Narrow(const WCHAR* path) {
  std::string narrow;
  for (; *path != 0; ++path) narrow.push_back(static_cast<char>(*path & 0xFF));
  return narrow;
}

}  // namespace

SimFiles& Files() {
  static SimFiles files;
  return files;
}

bool CanFail(Call call, Fault fault) {
  const auto isOneOf = [call](std::initializer_list<Call> calls) {
    return std::find(calls.begin(), calls.end(), call) != calls.end();
  };
  switch (fault) {
    case Fault::Partial:
      return isOneOf({Call::ReadFile, Call::WriteFile, Call::FlushFileBuffers});
    case Fault::DiskFull:
      return isOneOf({Call::WriteFile, Call::CreateFile});
    case Fault::Busy:
      return isOneOf({Call::CreateFile, Call::MoveFile});
    case Fault::DoneButFailed:
      return isOneOf({Call::WriteFile, Call::FlushFileBuffers, Call::MoveFile, Call::CreateFile,
                      Call::DeleteFile, Call::SetEndOfFile});
    default:
      return fault == Fault::Error;
  }
}

void SimFiles::Reset() {
  std::vector<Call>* const kept = log;
  *this = SimFiles();
  log = kept;
}

void SimFiles::Kill() {
  for (Handle& handle : handles_) handle.open = false;
  dead_ = true;
}

void SimFiles::CutPower() {
  Kill();
  disk.LoseUnflushed();
}

unsigned SimFiles::openHandles() const {
  return static_cast<unsigned>(
      std::count_if(handles_.begin(), handles_.end(), [](const Handle& h) { return h.open; }));
}

Fault SimFiles::Begin(Call call) {
  if (dead_) return Fault::Error;
  ++counts_[static_cast<std::size_t>(call)];
  if (log != nullptr) log->push_back(call);
  if (plan_.countdown == 0 || (plan_.oneKind && call != plan_.kind)) return Fault::None;
  if (plan_.countdown > 1) return --plan_.countdown, Fault::None;
  if (!plan_.fromThenOn) plan_.countdown = 0;
  if (!CanFail(call, plan_.fault)) return Fault::None;
  ++fired_;
  ++firedOf_[static_cast<std::size_t>(call)];
  return plan_.fault;
}

// Undoes the count of a fault that made no difference to this call.
void SimFiles::NotApplied(Call call) {
  --fired_;
  --firedOf_[static_cast<std::size_t>(call)];
}

SimFiles::Handle* SimFiles::HandleAt(HANDLE value) {
  if (!dead_ && value >= 1 && value <= handles_.size() && handles_[value - 1].open)
    return &handles_[value - 1];
  Fail(ERROR_INVALID_HANDLE);
  return nullptr;
}

// Whether a handle has the file to itself. One without access does not.
bool SimFiles::IsHeld(int inode) const {
  return std::any_of(handles_.begin(), handles_.end(), [inode](const Handle& h) {
    return h.open && h.inode == inode && h.access != 0;
  });
}

HANDLE SimFiles::Create(const WCHAR* path, DWORD access, DWORD disposition) {
  const Fault fault = Begin(Call::CreateFile);
  const auto refused = [this](DWORD error) { return Fail(error), INVALID_HANDLE_VALUE; };
  if (fault == Fault::Error) return refused(ERROR_ACCESS_DENIED);
  if (fault == Fault::Busy) return refused(ERROR_SHARING_VIOLATION);
  const std::string name = Narrow(path);
  const std::string directory(DirectoryOf(name));
  if (!disk.HasDirectory(directory)) return refused(ERROR_PATH_NOT_FOUND);
  int inode = disk.Lookup(name);
  const bool present = inode != kNoInode;
  if (present && disposition == CREATE_NEW) return refused(ERROR_FILE_EXISTS);
  if (!present && disposition == OPEN_EXISTING) return refused(ERROR_FILE_NOT_FOUND);
  if (present && access != 0 && IsHeld(inode)) return refused(ERROR_SHARING_VIOLATION);
  if (fault == Fault::DiskFull) {
    if (!present) return refused(ERROR_DISK_FULL);
    NotApplied(Call::CreateFile);
  }
  if (!present) {
    Watch(Call::CreateFile);
    inode = disk.Create(name);
  }
  if (fault == Fault::DoneButFailed) return refused(ERROR_IO_DEVICE);
  const auto free =
      std::find_if(handles_.begin(), handles_.end(), [](const Handle& h) { return !h.open; });
  if (free == handles_.end()) return refused(ERROR_TOO_MANY_OPEN_FILES);
  *free = {true, inode, directory, access, 0, disposition != OPEN_EXISTING, false};
  lastError = present && disposition != OPEN_EXISTING ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS;
  return static_cast<HANDLE>(free - handles_.begin()) + 1;
}

BOOL SimFiles::Read(HANDLE file, void* buffer, DWORD size, DWORD* transferred) {
  *transferred = 0;
  const Fault fault = Begin(Call::ReadFile);
  if (fault == Fault::Error) return Fail(ERROR_IO_DEVICE);
  Handle* handle = HandleAt(file);
  if (handle == nullptr) return 0;
  if ((handle->access & GENERIC_READ) == 0) return Fail(ERROR_ACCESS_DENIED);
  const Bytes& bytes = disk.inode(handle->inode).visible;
  const std::uint64_t left = handle->position < bytes.size() ? bytes.size() - handle->position : 0;
  DWORD count = static_cast<DWORD>(std::min<std::uint64_t>(size, left));
  if (fault == Fault::Partial) count /= 2;
  if (count > 0) std::memcpy(buffer, bytes.data() + handle->position, count);
  handle->position += count;
  *transferred = count;
  return fault == Fault::Partial ? Fail(ERROR_IO_DEVICE) : Done();
}

BOOL SimFiles::Write(HANDLE file, const void* buffer, DWORD size, DWORD* transferred) {
  *transferred = 0;
  const Fault fault = Begin(Call::WriteFile);
  if (fault == Fault::Error) return Fail(ERROR_IO_DEVICE);
  Handle* handle = HandleAt(file);
  if (handle == nullptr) return 0;
  if ((handle->access & GENERIC_WRITE) == 0) return Fail(ERROR_ACCESS_DENIED);
  if (handle->position + size > kLargestFile) return Fail(ERROR_FILE_TOO_LARGE);
  if (handle->position == 0 && std::exchange(failsHeader_, false)) return Fail(ERROR_IO_DEVICE);
  const bool grows = handle->position + size > disk.inode(handle->inode).visible.size();
  if (fault == Fault::DiskFull && !grows) NotApplied(Call::WriteFile);
  const bool full = fault == Fault::DiskFull && grows;
  const DWORD count = full || fault == Fault::Partial ? size / 2 : size;
  Watch(Call::WriteFile);
  disk.Write(handle->inode, static_cast<std::uint32_t>(handle->position), buffer, count);
  handle->position += count;
  *transferred = count;
  if (full) return Fail(ERROR_DISK_FULL);
  return fault == Fault::Partial || fault == Fault::DoneButFailed ? Fail(ERROR_IO_DEVICE) : Done();
}

DWORD SimFiles::Seek(HANDLE file, LONG distance, DWORD method) {
  const bool fails = Begin(Call::SetFilePointer) == Fault::Error;
  Handle* handle = HandleAt(file);
  if (handle == nullptr) return INVALID_SET_FILE_POINTER;
  if (fails) return Fail(ERROR_IO_DEVICE), INVALID_SET_FILE_POINTER;
  const std::int64_t from =
      method == FILE_CURRENT ? static_cast<std::int64_t>(handle->position) : 0;
  if (from + distance < 0) return Fail(ERROR_NEGATIVE_SEEK), INVALID_SET_FILE_POINTER;
  handle->position = static_cast<std::uint64_t>(from + distance);
  return Done(), static_cast<DWORD>(handle->position);
}

DWORD SimFiles::Size(HANDLE file) {
  const bool fails = Begin(Call::GetFileSize) == Fault::Error;
  const Handle* handle = HandleAt(file);
  if (handle == nullptr) return INVALID_FILE_SIZE;
  if (fails) return Fail(ERROR_IO_DEVICE), INVALID_FILE_SIZE;
  return Done(), static_cast<DWORD>(disk.inode(handle->inode).visible.size());
}

BOOL SimFiles::SetEnd(HANDLE file) {
  const Fault fault = Begin(Call::SetEndOfFile);
  if (fault == Fault::Error) return Fail(ERROR_IO_DEVICE);
  const Handle* handle = HandleAt(file);
  if (handle == nullptr) return 0;
  if ((handle->access & GENERIC_WRITE) == 0) return Fail(ERROR_ACCESS_DENIED);
  if (handle->position > kLargestFile) return Fail(ERROR_FILE_TOO_LARGE);
  Watch(Call::SetEndOfFile);
  disk.Truncate(handle->inode, static_cast<std::uint32_t>(handle->position));
  return fault != Fault::None ? Fail(ERROR_IO_DEVICE) : Done();
}

BOOL SimFiles::Information(HANDLE file, BY_HANDLE_FILE_INFORMATION* information) {
  const bool fails = Begin(Call::GetFileInformation) == Fault::Error;
  const Handle* handle = HandleAt(file);
  if (handle == nullptr) return 0;
  if (fails) return Fail(ERROR_IO_DEVICE);
  *information = {};
  information->dwVolumeSerialNumber = 1;
  information->nFileIndexLow = static_cast<DWORD>(handle->inode);
  return Done();
}

DWORD SimFiles::FullPath(const WCHAR* path, DWORD capacity, WCHAR* buffer) {
  if (Begin(Call::GetFullPathName) == Fault::Error) return Fail(ERROR_ACCESS_DENIED), 0;
  std::u16string full;
  if (*path != u'/') {
    for (const char c : currentDirectory) full.push_back(static_cast<unsigned char>(c));
    if (full.back() != u'/') full.push_back(u'/');
  }
  full += path;
  Done();
  if (full.size() >= capacity) return static_cast<DWORD>(full.size()) + 1;
  full.copy(buffer, full.size());
  buffer[full.size()] = 0;
  return static_cast<DWORD>(full.size());
}

BOOL SimFiles::Flush(HANDLE file) {
  const Fault fault = Begin(Call::FlushFileBuffers);
  Handle* handle = HandleAt(file);
  if (handle == nullptr) return 0;
  if (handle->flushFailed) return Fail(ERROR_IO_DEVICE);
  Watch(Call::FlushFileBuffers);
  if (fault == Fault::Error || fault == Fault::Partial) {
    disk.DropUpdates(handle->inode, fault == Fault::Partial);
  } else if (lieCountdown_ == 0 || --lieCountdown_ > 0) {
    disk.Flush(handle->inode);
    if (handle->syncsDirectory) disk.SyncDirectory(handle->directory);
    handle->syncsDirectory = false;
  }
  if (fault == Fault::None) return Done();
  handle->flushFailed = true;
  return Fail(ERROR_IO_DEVICE);
}

BOOL SimFiles::Close(HANDLE file) {
  const Fault fault = Begin(Call::CloseHandle);
  Handle* handle = HandleAt(file);
  if (handle == nullptr) return 0;
  handle->open = false;
  if (handle->flushFailed) disk.Reread(handle->inode);
  return fault != Fault::None ? Fail(ERROR_IO_DEVICE) : Done();
}

BOOL SimFiles::Delete(const WCHAR* path) {
  const Fault fault = Begin(Call::DeleteFile);
  if (fault == Fault::Error) return Fail(ERROR_ACCESS_DENIED);
  const std::string name = Narrow(path);
  const int inode = disk.Lookup(name);
  if (inode == kNoInode) return Fail(ERROR_FILE_NOT_FOUND);
  if (IsHeld(inode)) return Fail(ERROR_SHARING_VIOLATION);
  Watch(Call::DeleteFile);
  disk.Remove(name);
  return fault != Fault::None ? Fail(ERROR_IO_DEVICE) : Done();
}

BOOL SimFiles::Move(const WCHAR* from, const WCHAR* to, bool replace) {
  const Fault fault = Begin(Call::MoveFile);
  if (fault == Fault::Error) return Fail(ERROR_IO_DEVICE);
  if (fault == Fault::Busy) return Fail(ERROR_SHARING_VIOLATION);
  const std::string source = Narrow(from), target = Narrow(to);
  const int moved = disk.Lookup(source), replaced = disk.Lookup(target);
  if (moved == kNoInode) return Fail(ERROR_FILE_NOT_FOUND);
  if (!replace && replaced != kNoInode) return Fail(ERROR_ALREADY_EXISTS);
  if (IsHeld(moved) || (replaced != kNoInode && IsHeld(replaced)))
    return Fail(ERROR_SHARING_VIOLATION);
  Watch(Call::MoveFile);
  disk.Rename(source, target);
  if (fault == Fault::DoneButFailed)
    return Fail(ERROR_IO_DEVICE);  // renamed; the directory could not be synced
  disk.SyncDirectory(DirectoryOf(target));
  disk.SyncDirectory(DirectoryOf(source));
  return Done();
}

}  // namespace sim

using sim::Files;

extern "C" {

HANDLE CreateFileW(const WCHAR* path, DWORD access, DWORD, SECURITY_ATTRIBUTES*, DWORD disposition,
                   DWORD, HANDLE) {
  return Files().Create(path, access, disposition);
}
BOOL ReadFile(HANDLE file, void* buffer, DWORD size, DWORD* transferred, OVERLAPPED*) {
  return Files().Read(file, buffer, size, transferred);
}
BOOL WriteFile(HANDLE file, const void* buffer, DWORD size, DWORD* transferred, OVERLAPPED*) {
  return Files().Write(file, buffer, size, transferred);
}
DWORD SetFilePointer(HANDLE file, LONG distance, LONG*, DWORD method) {
  return Files().Seek(file, distance, method);
}
DWORD GetFileSize(HANDLE file, DWORD*) {
  return Files().Size(file);
}
BOOL SetEndOfFile(HANDLE file) {
  return Files().SetEnd(file);
}
BOOL GetFileInformationByHandle(HANDLE file, BY_HANDLE_FILE_INFORMATION* information) {
  return Files().Information(file, information);
}
DWORD GetFullPathNameW(const WCHAR* path, DWORD capacity, WCHAR* buffer, WCHAR** /*filePart*/) {
  return Files().FullPath(path, capacity, buffer);
}
BOOL FlushFileBuffers(HANDLE file) {
  return Files().Flush(file);
}
BOOL CloseHandle(HANDLE file) {
  return Files().Close(file);
}
BOOL DeleteFileW(const WCHAR* path) {
  return Files().Delete(path);
}
BOOL MoveFileW(const WCHAR* from, const WCHAR* to) {
  return Files().Move(from, to, false);
}
BOOL MoveFileExW(const WCHAR* from, const WCHAR* to, DWORD) {
  return Files().Move(from, to, true);
}
// The store makes and lists no directories; FileSystem's tests use real ones.
BOOL CreateDirectoryW(const WCHAR*, SECURITY_ATTRIBUTES*) {
  return Files().Fail(ERROR_NOT_SUPPORTED);
}
BOOL RemoveDirectoryW(const WCHAR*) {
  return Files().Fail(ERROR_NOT_SUPPORTED);
}
BOOL SetFileAttributesW(const WCHAR*, DWORD) {
  return Files().Fail(ERROR_NOT_SUPPORTED);
}
HANDLE FindFirstFileW(const WCHAR*, WIN32_FIND_DATAW*) {
  return INVALID_HANDLE_VALUE;
}
BOOL FindNextFileW(HANDLE, WIN32_FIND_DATAW*) {
  return Files().Fail(ERROR_NOT_SUPPORTED);
}
BOOL FindClose(HANDLE) {
  return Files().Fail(ERROR_INVALID_HANDLE);
}
DWORD GetLastError() {
  return Files().lastError;
}
void Sleep(DWORD milliseconds) {
  Files().sleptMs += milliseconds;
}
DWORD GetCurrentThreadId() {
  return 1;
}
DWORD GetCurrentProcessId() {
  return Files().processId;
}
void RaiseException(DWORD code, DWORD, DWORD, const std::uintptr_t*) {
  sim::Diagnostics().Raised(code);
}
}
