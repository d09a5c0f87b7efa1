#include "tests/support/SimFiles.h"

#include <algorithm>
#include <map>
#include <utility>

namespace sim {

SimFiles& Files() {
  static SimFiles files;
  return files;
}

bool CanFail(Call call, Fault fault) {
  static const std::map<Fault, std::set<Call>> kCalls = {
      {Fault::Partial, {Call::ReadFile, Call::WriteFile, Call::FlushFileBuffers}},
      {Fault::DiskFull, {Call::WriteFile, Call::CreateFile}},
      {Fault::Busy, {Call::CreateFile, Call::MoveFile}},
      {Fault::DoneButFailed,
       {Call::WriteFile, Call::FlushFileBuffers, Call::MoveFile, Call::CreateFile, Call::DeleteFile,
        Call::SetEndOfFile}}};
  return fault == Fault::Error || kCalls.at(fault).count(call) > 0;
}

void SimFiles::Reset() {
  SimFiles fresh;
  fresh.watcher = watcher;
  *this = fresh;
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

Fault SimFiles::Begin(Call call, bool grows) {
  if (dead_) return Fault::Error;
  log.push_back(call);
  if (plan_.countdown == 0 || call != plan_.kind.value_or(call)) return Fault::None;
  if (plan_.countdown > 1) return --plan_.countdown, Fault::None;
  if (!plan_.fromThenOn) plan_.countdown = 0;
  if (!CanFail(call, plan_.fault) || (plan_.fault == Fault::DiskFull && !grows)) return Fault::None;
  ++fired_;
  firedOf_.insert(call);
  return plan_.fault;
}

SimFiles::Handle* SimFiles::Begin(Call call, HANDLE file, DWORD access, std::size_t size) {
  Handle* handle = file >= 1 && file <= handles_.size() ? &handles_[file - 1] : nullptr;
  if (handle != nullptr && !handle->open) handle = nullptr;
  lastFault = Begin(call, handle != nullptr &&
                              handle->position + size > disk.inode(handle->inode).visible.size());
  if (handle == nullptr) return Fail(ERROR_INVALID_HANDLE), nullptr;
  if (lastFault == Fault::Error && call != Call::FlushFileBuffers && call != Call::CloseHandle)
    return Fail(ERROR_IO_DEVICE), nullptr;
  if ((handle->access & access) != access) return Fail(ERROR_ACCESS_DENIED), nullptr;
  return handle;
}

// Whether a handle has the file to itself. One without access does not.
bool SimFiles::IsHeld(int inode) const {
  return std::any_of(handles_.begin(), handles_.end(), [inode](const Handle& h) {
    return h.open && h.inode == inode && h.access != 0;
  });
}

HANDLE SimFiles::Open(const Handle& handle) {
  const auto free =
      std::find_if(handles_.begin(), handles_.end(), [](const Handle& h) { return !h.open; });
  if (free == handles_.end()) return Fail(ERROR_TOO_MANY_OPEN_FILES), INVALID_HANDLE_VALUE;
  *free = handle;
  return static_cast<HANDLE>(free - handles_.begin()) + 1;
}

bool SimFiles::FailsHeader(const Handle& handle) {
  return handle.position == 0 && std::exchange(failsHeader_, false);
}

void SimFiles::Flush(Handle& handle) {
  if (lastFault == Fault::Error || lastFault == Fault::Partial) {
    disk.DropUpdates(handle.inode);
    if (lastFault == Fault::Error) disk.Reread(handle.inode);
  } else {
    disk.Flush(handle.inode);
    if (std::exchange(handle.syncsDirectory, false)) disk.SyncDirectory(handle.directory);
  }
  handle.flushFailed = lastFault != Fault::None;
}

namespace {

using Handle = SimFiles::Handle;

std::string Narrow(const WCHAR* path) {
  std::string narrow;
  for (; *path != 0; ++path) narrow.push_back(static_cast<char>(*path & 0xFF));
  return narrow;
}

BOOL Move(const WCHAR* from, const WCHAR* to, bool replace) {
  SimFiles& machine = Files();
  Disk& disk = machine.disk;
  const Fault fault = machine.Begin(Call::MoveFile);
  if (fault == Fault::Error) return machine.Fail(ERROR_IO_DEVICE);
  if (fault == Fault::Busy) return machine.Fail(ERROR_SHARING_VIOLATION);
  const std::string source = Narrow(from), target = Narrow(to);
  const int moved = disk.Lookup(source), replaced = disk.Lookup(target);
  if (moved == kNoInode) return machine.Fail(ERROR_FILE_NOT_FOUND);
  if (!replace && replaced != kNoInode) return machine.Fail(ERROR_ALREADY_EXISTS);
  if (machine.IsHeld(moved) != (replaced != kNoInode && machine.IsHeld(replaced)))
    return machine.Fail(ERROR_SHARING_VIOLATION);
  machine.Watch();
  disk.Rename(source, target);
  if (fault == Fault::None) {  // else the directory could not be synced
    disk.SyncDirectory(DirectoryOf(target));
    disk.SyncDirectory(DirectoryOf(source));
  }
  return machine.Done(fault != Fault::None);
}

}  // namespace

}  // namespace sim

using sim::Call;
using sim::Fault;
using sim::Files;
using sim::kNoInode;

extern "C" {

HANDLE CreateFileW(const WCHAR* path, DWORD access, DWORD, SECURITY_ATTRIBUTES*, DWORD disposition,
                   DWORD, HANDLE) {
  sim::SimFiles& machine = Files();
  const auto refused = [&](DWORD error) { return machine.Fail(error), INVALID_HANDLE_VALUE; };
  const std::string name = sim::Narrow(path), directory(sim::DirectoryOf(name));
  int inode = machine.disk.Lookup(name);
  const bool present = inode != kNoInode;
  const Fault fault = machine.Begin(Call::CreateFile, !present);
  if (fault == Fault::Error) return refused(ERROR_ACCESS_DENIED);
  if (fault == Fault::Busy) return refused(ERROR_SHARING_VIOLATION);
  if (!machine.disk.directories.contains(directory)) return refused(ERROR_PATH_NOT_FOUND);
  if (present && disposition == CREATE_NEW) return refused(ERROR_FILE_EXISTS);
  if (!present && disposition == OPEN_EXISTING) return refused(ERROR_FILE_NOT_FOUND);
  if (present && access != 0 && machine.IsHeld(inode)) return refused(ERROR_SHARING_VIOLATION);
  if (fault == Fault::DiskFull) return refused(ERROR_DISK_FULL);
  if (!present) {
    machine.Watch();
    inode = machine.disk.Create(name);
  }
  if (fault == Fault::DoneButFailed) return refused(ERROR_IO_DEVICE);
  machine.Fail(present && disposition != OPEN_EXISTING ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
  return machine.Open({true, inode, directory, access, 0, disposition != OPEN_EXISTING, false});
}

BOOL ReadFile(HANDLE file, void* buffer, DWORD size, DWORD* transferred, OVERLAPPED* at) {
  *transferred = 0;
  sim::Handle* handle = Files().Begin(Call::ReadFile, file, GENERIC_READ);
  if (handle == nullptr) return 0;
  const sim::Bytes& bytes = Files().disk.inode(handle->inode).visible;
  const std::size_t from = at != nullptr ? at->Offset : handle->position;
  const std::size_t left = bytes.size() - std::min(from, bytes.size());
  DWORD count = static_cast<DWORD>(std::min<std::size_t>(size, left));
  const bool partial = Files().lastFault == Fault::Partial;
  if (partial) count /= 2;
  if (count > 0) bytes.copy(static_cast<char*>(buffer), count, from);
  if (at == nullptr) handle->position += count;
  *transferred = count;
  return Files().Done(partial);
}

BOOL WriteFile(HANDLE file, const void* buffer, DWORD size, DWORD* transferred, OVERLAPPED*) {
  *transferred = 0;
  sim::Handle* handle = Files().Begin(Call::WriteFile, file, GENERIC_WRITE, size);
  if (handle == nullptr) return 0;
  if (handle->position + size > 0x7FFFFFFF) return Files().Fail(ERROR_FILE_TOO_LARGE);
  if (Files().FailsHeader(*handle)) return Files().Fail(ERROR_IO_DEVICE);
  const Fault fault = Files().lastFault;
  const DWORD count = fault == Fault::DiskFull || fault == Fault::Partial ? size / 2 : size;
  Files().Watch();
  Files().disk.Write(handle->inode, handle->position, buffer, count);
  handle->position += count;
  *transferred = count;
  if (fault == Fault::DiskFull) return Files().Fail(ERROR_DISK_FULL);
  return Files().Done(fault != Fault::None);
}

DWORD SetFilePointer(HANDLE file, LONG distance, LONG*, DWORD method) {
  sim::Handle* handle = Files().Begin(Call::SetFilePointer, file, 0);
  if (handle == nullptr) return INVALID_SET_FILE_POINTER;
  const auto from = static_cast<std::int64_t>(method == FILE_CURRENT ? handle->position : 0);
  if (from + distance < 0) return Files().Fail(ERROR_NEGATIVE_SEEK), INVALID_SET_FILE_POINTER;
  handle->position = static_cast<std::size_t>(from + distance);
  return Files().Done(), static_cast<DWORD>(handle->position);
}

DWORD GetFileSize(HANDLE file, DWORD*) {
  const sim::Handle* handle = Files().Begin(Call::GetFileSize, file, 0);
  if (handle == nullptr) return INVALID_FILE_SIZE;
  return Files().Done(), static_cast<DWORD>(Files().disk.inode(handle->inode).visible.size());
}

BOOL SetEndOfFile(HANDLE file) {
  const sim::Handle* handle = Files().Begin(Call::SetEndOfFile, file, GENERIC_WRITE);
  if (handle == nullptr) return 0;
  Files().Watch();
  Files().disk.Truncate(handle->inode, handle->position);
  return Files().Done(Files().lastFault != Fault::None);
}

BOOL GetFileInformationByHandle(HANDLE file, BY_HANDLE_FILE_INFORMATION* information) {
  const sim::Handle* handle = Files().Begin(Call::GetFileInformation, file, 0);
  if (handle == nullptr) return 0;
  *information = {};
  information->dwVolumeSerialNumber = 1;
  information->nFileIndexLow = static_cast<DWORD>(handle->inode);
  return Files().Done();
}

DWORD GetFullPathNameW(const WCHAR* path, DWORD capacity, WCHAR* buffer, WCHAR** /*filePart*/) {
  if (Files().Begin(Call::GetFullPathName) == Fault::Error)
    return Files().Fail(ERROR_ACCESS_DENIED), 0;
  std::u16string full(path);
  if (*path != u'/') {
    const std::string& directory = Files().currentDirectory;
    full = std::u16string(directory.begin(), directory.end()) + u'/' + full;
  }
  buffer[full.copy(buffer, capacity - 1)] = 0;
  return Files().Done(), static_cast<DWORD>(full.size());
}

BOOL FlushFileBuffers(HANDLE file) {
  sim::Handle* handle = Files().Begin(Call::FlushFileBuffers, file, 0);
  if (handle == nullptr) return 0;
  if (handle->flushFailed) return Files().Fail(ERROR_IO_DEVICE);
  Files().Watch();
  Files().Flush(*handle);
  return Files().Done(handle->flushFailed);
}

BOOL CloseHandle(HANDLE file) {
  sim::Handle* handle = Files().Begin(Call::CloseHandle, file, 0);
  if (handle == nullptr) return 0;
  handle->open = false;
  if (handle->flushFailed) Files().disk.Reread(handle->inode);
  return Files().Done(Files().lastFault != Fault::None);
}

BOOL DeleteFileW(const WCHAR* path) {
  const Fault fault = Files().Begin(Call::DeleteFile);
  if (fault == Fault::Error) return Files().Fail(ERROR_ACCESS_DENIED);
  const std::string name = sim::Narrow(path);
  const int inode = Files().disk.Lookup(name);
  if (inode == kNoInode) return Files().Fail(ERROR_FILE_NOT_FOUND);
  if (Files().IsHeld(inode)) return Files().Fail(ERROR_SHARING_VIOLATION);
  Files().Watch();
  Files().disk.Remove(name);
  return Files().Done(fault != Fault::None);
}

BOOL MoveFileW(const WCHAR* from, const WCHAR* to) {
  return sim::Move(from, to, false);
}
BOOL MoveFileExW(const WCHAR* from, const WCHAR* to, DWORD) {
  return sim::Move(from, to, true);
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
  return 1;
}
}
