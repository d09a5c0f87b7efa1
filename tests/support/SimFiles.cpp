#include "tests/support/SimFiles.h"

#include <algorithm>
#include <cstring>

namespace sim {

namespace {

constexpr std::uint32_t kHeaderSize = 24;
constexpr std::uint64_t kLargestFile = 0x7FFFFFFF;

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

SimFiles& Files() {
  static SimFiles files;
  return files;
}

void SimFiles::Reset() {
  disk.Clear();
  faults.Clear();
  watcher = nullptr;
  watcherContext = nullptr;
  log = nullptr;
  BehaveAgain();
  ReleaseHandles();
  counts_ = {};
  sleptMs_ = 0;
  lastError_ = 0;
  dead_ = false;
}

void SimFiles::PutHeaderFirst(std::string suffix) {
  headerFirst_ = true;
  headerFirstSuffix_ = std::move(suffix);
}

void SimFiles::BehaveAgain() {
  lieCountdown_ = 0;
  headerFirst_ = false;
  neverFlushSuffix_.clear();
  loseZerosSuffix_.clear();
  renamesPending_ = false;
  misbehaved_ = false;
}

void SimFiles::Kill() {
  ReleaseHandles();
  dead_ = true;
}

void SimFiles::CutPower() {
  Kill();
  disk.LoseUnflushed();
}

void SimFiles::ReleaseHandles() {
  for (Handle& handle : handles_) handle.open = false;
}

std::uint64_t SimFiles::allCalls() const {
  std::uint64_t sum = 0;
  for (const std::uint64_t count : counts_) sum += count;
  return sum;
}

unsigned SimFiles::openHandles() const {
  return static_cast<unsigned>(std::count_if(handles_.begin(), handles_.end(), [](const Handle& h) { return h.open; }));
}

BOOL SimFiles::Fail(DWORD error) {
  lastError_ = error;
  return 0;
}

Fault SimFiles::Begin(Call call) {
  if (dead_) return Fault::Error;
  ++counts_[static_cast<std::size_t>(call)];
  if (log != nullptr) log->push_back(call);
  return faults.Decide(call);
}

// Handle values carry a generation, so that a stale one never names another
// file. 0 and 0xDEADBEEF are never handed out: their low byte is out of range.
SimFiles::Handle* SimFiles::HandleAt(HANDLE value) {
  const std::size_t index = (value & 0xFF) - std::size_t{1};
  if (index >= kMaxHandles) return nullptr;
  Handle& handle = handles_[index];
  return handle.open && handle.generation == value >> 8 ? &handle : nullptr;
}

HANDLE SimFiles::NewHandle() {
  for (std::size_t i = 0; i < kMaxHandles; ++i) {
    Handle& handle = handles_[i];
    if (handle.open) continue;
    handle.open = true;
    handle.generation = (handle.generation + 1) & 0xFFFF;
    handle.position = 0;
    handle.flushFailed = false;
    handle.headerWritten = false;
    handle.find = false;
    return handle.generation << 8 | static_cast<HANDLE>(i + 1);
  }
  return INVALID_HANDLE_VALUE;
}

bool SimFiles::IsOpen(int inode) const {
  return std::any_of(handles_.begin(), handles_.end(),
                     [inode](const Handle& h) { return h.open && !h.find && h.inode == inode; });
}

const std::string& SimFiles::Narrow(const WCHAR* path, std::string& out) const {
  out.clear();
  for (; *path != 0; ++path) out.push_back(static_cast<char>(*path & 0xFF));
  return out;
}

HANDLE SimFiles::Create(const WCHAR* path, DWORD access, DWORD disposition) {
  const Fault fault = Begin(Call::CreateFile);
  if (fault == Fault::Error) return Fail(ERROR_ACCESS_DENIED), INVALID_HANDLE_VALUE;
  if (fault == Fault::Busy) return Fail(ERROR_SHARING_VIOLATION), INVALID_HANDLE_VALUE;
  const std::string& name = Narrow(path, from_);
  if (!disk.HasDirectory(DirectoryOf(name))) return Fail(ERROR_PATH_NOT_FOUND), INVALID_HANDLE_VALUE;
  if (disk.HasDirectory(name)) return Fail(ERROR_ACCESS_DENIED), INVALID_HANDLE_VALUE;
  int inode = disk.Lookup(name);
  const bool present = inode != kNoInode;
  if (present && disposition == CREATE_NEW) return Fail(ERROR_FILE_EXISTS), INVALID_HANDLE_VALUE;
  if (!present && (disposition == OPEN_EXISTING || disposition == TRUNCATE_EXISTING))
    return Fail(ERROR_FILE_NOT_FOUND), INVALID_HANDLE_VALUE;
  if (present && IsOpen(inode)) return Fail(ERROR_SHARING_VIOLATION), INVALID_HANDLE_VALUE;
  if (fault == Fault::DiskFull) {
    if (!present) return Fail(ERROR_DISK_FULL), INVALID_HANDLE_VALUE;
    faults.NotApplied(Call::CreateFile);
  }
  if (!present) {
    Watch(Call::CreateFile);
    inode = disk.Create(name);
  } else if (disposition == CREATE_ALWAYS || disposition == TRUNCATE_EXISTING) {
    Watch(Call::CreateFile);
    disk.Truncate(inode, 0);
  }
  if (fault == Fault::DoneButFailed) return Fail(ERROR_IO_DEVICE), INVALID_HANDLE_VALUE;
  const HANDLE value = NewHandle();
  if (value == INVALID_HANDLE_VALUE) return Fail(ERROR_TOO_MANY_OPEN_FILES), INVALID_HANDLE_VALUE;
  Handle& handle = *HandleAt(value);
  handle.inode = inode;
  handle.path = name;
  handle.access = access;
  handle.syncsDirectory = disposition != OPEN_EXISTING && disposition != TRUNCATE_EXISTING;
  lastError_ = present && disposition != OPEN_EXISTING ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS;
  return value;
}

BOOL SimFiles::Read(HANDLE file, void* buffer, DWORD size, DWORD* transferred) {
  *transferred = 0;
  const Fault fault = Begin(Call::ReadFile);
  if (fault == Fault::Error) return Fail(ERROR_IO_DEVICE);
  Handle* handle = HandleAt(file);
  if (handle == nullptr || handle->find) return Fail(ERROR_INVALID_HANDLE);
  if ((handle->access & GENERIC_READ) == 0) return Fail(ERROR_ACCESS_DENIED);
  const Bytes& bytes = disk.inode(handle->inode).visible;
  const std::uint64_t left = handle->position < bytes.size() ? bytes.size() - handle->position : 0;
  DWORD count = static_cast<DWORD>(std::min<std::uint64_t>(size, left));
  if (fault == Fault::Partial) count /= 2;
  if (count > 0) std::memcpy(buffer, bytes.data() + handle->position, count);
  handle->position += count;
  *transferred = count;
  if (fault == Fault::Partial) return Fail(ERROR_IO_DEVICE);
  lastError_ = ERROR_SUCCESS;
  return 1;
}

bool SimFiles::IsEarlyHeader(const Handle& handle, DWORD size) const {
  return headerFirst_ && handle.position == 0 && size == kHeaderSize && EndsWith(handle.path, headerFirstSuffix_);
}

bool SimFiles::IsLost(const Handle& handle, const void* buffer, DWORD size) const {
  if (loseZerosSuffix_.empty() || !EndsWith(handle.path, loseZerosSuffix_)) return false;
  const auto* bytes = static_cast<const unsigned char*>(buffer);
  return std::all_of(bytes, bytes + size, [](unsigned char byte) { return byte == 0; });
}

BOOL SimFiles::Write(HANDLE file, const void* buffer, DWORD size, DWORD* transferred) {
  *transferred = 0;
  const Fault fault = Begin(Call::WriteFile);
  if (fault == Fault::Error) return Fail(ERROR_IO_DEVICE);
  Handle* handle = HandleAt(file);
  if (handle == nullptr || handle->find) return Fail(ERROR_INVALID_HANDLE);
  if ((handle->access & GENERIC_WRITE) == 0) return Fail(ERROR_ACCESS_DENIED);
  if (handle->position + size > kLargestFile) return Fail(ERROR_FILE_TOO_LARGE);
  const bool grows = handle->position + size > disk.inode(handle->inode).visible.size();
  const bool full = fault == Fault::DiskFull && grows;
  if (fault == Fault::DiskFull && !grows) faults.NotApplied(Call::WriteFile);
  const DWORD count = full || fault == Fault::Partial ? size / 2 : size;
  Watch(Call::WriteFile);
  if (IsEarlyHeader(*handle, size)) {
    disk.WriteThrough(handle->inode, 0, buffer, size);
    handle->headerWritten = misbehaved_ = true;
  } else if (IsLost(*handle, buffer, size)) {
    misbehaved_ = true;
  } else {
    disk.Write(handle->inode, static_cast<std::uint32_t>(handle->position), buffer, count);
  }
  handle->position += count;
  *transferred = count;
  if (full) return Fail(ERROR_DISK_FULL);
  if (fault == Fault::Partial || fault == Fault::DoneButFailed) return Fail(ERROR_IO_DEVICE);
  lastError_ = ERROR_SUCCESS;
  return 1;
}

DWORD SimFiles::Seek(HANDLE file, LONG distance, LONG* distanceHigh, DWORD method) {
  if (Begin(Call::SetFilePointer) == Fault::Error) return Fail(ERROR_IO_DEVICE), INVALID_SET_FILE_POINTER;
  Handle* handle = HandleAt(file);
  if (handle == nullptr || handle->find) return Fail(ERROR_INVALID_HANDLE), INVALID_SET_FILE_POINTER;
  std::int64_t target = distance;
  if (distanceHigh != nullptr)
    target = static_cast<std::int64_t>(static_cast<std::uint64_t>(static_cast<std::uint32_t>(*distanceHigh)) << 32 |
                                       static_cast<std::uint32_t>(distance));
  if (method == FILE_CURRENT) target += static_cast<std::int64_t>(handle->position);
  if (method == FILE_END) target += static_cast<std::int64_t>(disk.inode(handle->inode).visible.size());
  if (method > FILE_END) return Fail(ERROR_INVALID_PARAMETER), INVALID_SET_FILE_POINTER;
  if (target < 0) return Fail(ERROR_NEGATIVE_SEEK), INVALID_SET_FILE_POINTER;
  if (distanceHigh == nullptr && target > std::int64_t{INVALID_SET_FILE_POINTER} - 1)
    return Fail(ERROR_INVALID_PARAMETER), INVALID_SET_FILE_POINTER;
  handle->position = static_cast<std::uint64_t>(target);
  if (distanceHigh != nullptr) *distanceHigh = static_cast<LONG>(target >> 32);
  lastError_ = ERROR_SUCCESS;
  return static_cast<DWORD>(target);
}

DWORD SimFiles::Size(HANDLE file, DWORD* sizeHigh) {
  if (Begin(Call::GetFileSize) == Fault::Error) return Fail(ERROR_IO_DEVICE), INVALID_FILE_SIZE;
  const Handle* handle = HandleAt(file);
  if (handle == nullptr || handle->find) return Fail(ERROR_INVALID_HANDLE), INVALID_FILE_SIZE;
  if (sizeHigh != nullptr) *sizeHigh = 0;
  lastError_ = ERROR_SUCCESS;
  return static_cast<DWORD>(disk.inode(handle->inode).visible.size());
}

bool SimFiles::Lies(const Handle& handle) {
  if (headerFirst_ && EndsWith(handle.path, headerFirstSuffix_) && !handle.headerWritten) return true;
  const bool never = !neverFlushSuffix_.empty() && EndsWith(handle.path, neverFlushSuffix_);
  const bool now = lieCountdown_ > 0 && --lieCountdown_ == 0;
  misbehaved_ = misbehaved_ || never || now;
  return never || now;
}

void SimFiles::FinishFlush(Handle& handle) {
  disk.Flush(handle.inode);
  if (handle.syncsDirectory) disk.SyncDirectory(DirectoryOf(handle.path));
  handle.syncsDirectory = false;
  handle.headerWritten = false;
}

BOOL SimFiles::Flush(HANDLE file) {
  const Fault fault = Begin(Call::FlushFileBuffers);
  if (dead_) return Fail(ERROR_INVALID_HANDLE);
  Handle* handle = HandleAt(file);
  if (handle == nullptr || handle->find) return Fail(ERROR_INVALID_HANDLE);
  if (handle->flushFailed) return Fail(ERROR_IO_DEVICE);
  Watch(Call::FlushFileBuffers);
  if (fault == Fault::Error || fault == Fault::Partial) {
    disk.DropUpdates(handle->inode, fault == Fault::Partial);
  } else if (!Lies(*handle)) {
    FinishFlush(*handle);
  }
  if (fault != Fault::None) {
    handle->flushFailed = true;
    return Fail(ERROR_IO_DEVICE);
  }
  lastError_ = ERROR_SUCCESS;
  return 1;
}

BOOL SimFiles::Close(HANDLE file) {
  const Fault fault = Begin(Call::CloseHandle);
  Handle* handle = HandleAt(file);
  if (dead_ || handle == nullptr || handle->find) return Fail(ERROR_INVALID_HANDLE);
  handle->open = false;
  if (handle->flushFailed) disk.ReadAnew(handle->inode);
  if (fault != Fault::None) return Fail(ERROR_IO_DEVICE);
  lastError_ = ERROR_SUCCESS;
  return 1;
}

BOOL SimFiles::Delete(const WCHAR* path) {
  const Fault fault = Begin(Call::DeleteFile);
  if (fault == Fault::Error) return Fail(ERROR_ACCESS_DENIED);
  const std::string& name = Narrow(path, from_);
  if (disk.Lookup(name) == kNoInode) return Fail(ERROR_FILE_NOT_FOUND);
  Watch(Call::DeleteFile);
  disk.Remove(name);
  if (fault != Fault::None) return Fail(ERROR_IO_DEVICE);
  lastError_ = ERROR_SUCCESS;
  return 1;
}

BOOL SimFiles::Move(const WCHAR* from, const WCHAR* to, bool replace) {
  const Fault fault = Begin(Call::MoveFile);
  if (fault == Fault::Error) return Fail(ERROR_IO_DEVICE);
  if (fault == Fault::Busy) return Fail(ERROR_SHARING_VIOLATION);
  const std::string& source = Narrow(from, from_);
  const std::string& target = Narrow(to, to_);
  if (disk.Lookup(source) == kNoInode) return Fail(ERROR_FILE_NOT_FOUND);
  if (!disk.HasDirectory(DirectoryOf(target))) return Fail(ERROR_PATH_NOT_FOUND);
  if (!replace && disk.Lookup(target) != kNoInode) return Fail(ERROR_ALREADY_EXISTS);
  Watch(Call::MoveFile);
  if (source != target) disk.Rename(source, target);
  if (fault == Fault::DoneButFailed) return Fail(ERROR_IO_DEVICE);  // renamed; the directory could not be synced
  if (renamesPending_) {
    misbehaved_ = true;
  } else {
    disk.SyncDirectory(DirectoryOf(target));
    disk.SyncDirectory(DirectoryOf(source));
  }
  lastError_ = ERROR_SUCCESS;
  return 1;
}

BOOL SimFiles::MakeDirectory(const WCHAR* path) {
  if (Begin(Call::Directory) == Fault::Error) return Fail(ERROR_ACCESS_DENIED);
  const std::string& name = Narrow(path, from_);
  if (disk.HasDirectory(name) || disk.Lookup(name) != kNoInode) return Fail(ERROR_ALREADY_EXISTS);
  if (!DirectoryOf(name).empty() && !disk.HasDirectory(DirectoryOf(name))) return Fail(ERROR_PATH_NOT_FOUND);
  disk.MakeDirectory(name);
  return 1;
}

BOOL SimFiles::RemoveDirectory(const WCHAR* path) {
  if (Begin(Call::Directory) == Fault::Error) return Fail(ERROR_ACCESS_DENIED);
  const std::string& name = Narrow(path, from_);
  if (!disk.HasDirectory(name)) return Fail(ERROR_FILE_NOT_FOUND);
  if (!disk.DirectoryIsEmpty(name)) return Fail(ERROR_DIR_NOT_EMPTY);
  disk.RemoveDirectory(name);
  return 1;
}

BOOL SimFiles::SetAttributes(const WCHAR* path) {
  if (Begin(Call::Directory) == Fault::Error) return Fail(ERROR_ACCESS_DENIED);
  const std::string& name = Narrow(path, from_);
  if (!disk.HasDirectory(name) && disk.Lookup(name) == kNoInode) return Fail(ERROR_FILE_NOT_FOUND);
  return 1;
}

BOOL SimFiles::FillFindData(Handle& handle, WIN32_FIND_DATAW* data) {
  if (handle.entries.empty()) return Fail(ERROR_NO_MORE_FILES);
  const std::string name = handle.entries.back();
  handle.entries.pop_back();
  const std::string path = handle.path + "/" + name;
  const int inode = disk.Lookup(path);
  *data = {};
  data->dwFileAttributes = inode == kNoInode ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL;
  if (inode != kNoInode) data->nFileSizeLow = static_cast<DWORD>(disk.inode(inode).visible.size());
  const std::size_t length = std::min<std::size_t>(name.size(), MAX_PATH - 1);
  for (std::size_t i = 0; i < length; ++i) data->cFileName[i] = static_cast<unsigned char>(name[i]);
  return 1;
}

HANDLE SimFiles::FindFirst(const WCHAR* pattern, WIN32_FIND_DATAW* data) {
  if (Begin(Call::Directory) == Fault::Error) return Fail(ERROR_ACCESS_DENIED), INVALID_HANDLE_VALUE;
  std::string directory = Narrow(pattern, from_);
  if (!EndsWith(directory, "/*.*")) return Fail(ERROR_INVALID_NAME), INVALID_HANDLE_VALUE;
  directory.resize(directory.size() - 4);
  if (!disk.HasDirectory(directory)) return Fail(ERROR_PATH_NOT_FOUND), INVALID_HANDLE_VALUE;
  const HANDLE value = NewHandle();
  if (value == INVALID_HANDLE_VALUE) return Fail(ERROR_TOO_MANY_OPEN_FILES), INVALID_HANDLE_VALUE;
  Handle& handle = *HandleAt(value);
  handle.find = true;
  handle.path = directory;
  handle.entries = disk.List(directory);
  handle.entries.insert(handle.entries.end(), {".", ".."});
  FillFindData(handle, data);
  return value;
}

BOOL SimFiles::FindNext(HANDLE find, WIN32_FIND_DATAW* data) {
  if (Begin(Call::Directory) == Fault::Error) return Fail(ERROR_IO_DEVICE);
  Handle* handle = HandleAt(find);
  if (handle == nullptr || !handle->find) return Fail(ERROR_INVALID_HANDLE);
  return FillFindData(*handle, data);
}

BOOL SimFiles::CloseFind(HANDLE find) {
  Handle* handle = HandleAt(find);
  if (handle == nullptr || !handle->find) return Fail(ERROR_INVALID_HANDLE);
  handle->open = false;
  return 1;
}

}  // namespace sim
