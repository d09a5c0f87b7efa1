#include "fs/FileSystem.h"

#include <optional>

#include "platform/Failure.h"
#include "platform/Trace.h"

namespace {

constexpr int kSharingAttempts = 25;
constexpr DWORD kSharingDelayMs = 20;

std::string WithCode(const std::string& text, DWORD code) {
  return text + " GetLastError code= " + std::to_string(code);
}

[[noreturn]] void TraceAndThrow(const std::string& text, DWORD code) {
  const std::string line = WithCode(text, code);
  trace::fileSystem.WriteErrorV("%s", line.c_str());
  throw Failure(SystemCode{code}, line);
}

bool Move(const std::u16string& from, const std::u16string& to, DWORD flags) {
  DWORD code = ERROR_SUCCESS;
  for (int retry = 0; retry < kSharingAttempts; ++retry) {
    const BOOL moved = flags == 0 ? ::MoveFileW(from.c_str(), to.c_str())
                                  : MoveFileExW(from.c_str(), to.c_str(), flags);
    if (moved == 1) return true;
    code = GetLastError();
    if (code != ERROR_SHARING_VIOLATION) break;
    trace::fileSystem.notes.WriteWarnV("FileSystem::MoveFile sharing violation file retrying %d",
                                       retry);
    Sleep(kSharingDelayMs);
  }
  TraceAndThrow("FileSystem::MoveFile error " + FileSystem::ConvertString(from) + " -> " +
                    FileSystem::ConvertString(to),
                code);
}

// Deletes a file or an empty directory, even if it is read-only. Returns 0 or the platform's code.
DWORD Delete(const std::u16string& path, BOOL (*remove)(const WCHAR*)) {
  const bool done =
      SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL) != 0 && remove(path.c_str()) != 0;
  return done ? ERROR_SUCCESS : GetLastError();
}

// Calls visit(name, isDirectory) for each entry of a directory until it returns a code other than
// 0. Returns that code, or else the one that the listing ended with; nothing without a listing.
template <class Visit>
std::optional<DWORD> ForEachEntry(const std::u16string& dir, Visit visit) {
  WIN32_FIND_DATAW entry{};
  const ScopedFindHandle search(FindFirstFileW((dir + u"/*.*").c_str(), &entry));
  if (!search.IsValid()) return std::nullopt;
  do {
    const bool isDirectory = (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    if (const DWORD code = visit(std::u16string(entry.cFileName), isDirectory); code != 0)
      return code;
  } while (FindNextFileW(search.Get(), &entry) == 1);
  return GetLastError();
}

}  // namespace

ScopedFindHandle::ScopedFindHandle(HANDLE search) : handle(search) {}

ScopedFindHandle::~ScopedFindHandle() {
  Close();
}

BOOL ScopedFindHandle::Close() {
  const BOOL closed = IsValid() ? FindClose(handle) : 1;
  handle = INVALID_HANDLE_VALUE;
  return closed;
}

std::u16string FileSystem::ConvertString(const std::string& s) {
  std::u16string wide;
  wide.reserve(s.size());
  for (const char c : s) wide.push_back(static_cast<char16_t>(static_cast<signed char>(c)));
  return wide;
}

std::string FileSystem::ConvertString(const std::u16string& s) {
  std::string narrow;
  narrow.reserve(s.size());
  for (const char16_t unit : s) narrow.push_back(static_cast<char>(unit & 0xFF));
  return narrow;
}

std::string FileSystem::AbsolutePath(const std::string& path) {
  const std::u16string wide = ConvertString(path);
  std::u16string full(MAX_PATH, u'\0');
  DWORD length = 0;
  while ((length = GetFullPathNameW(wide.c_str(), static_cast<DWORD>(full.size()), full.data(),
                                    nullptr)) > full.size())
    full.resize(length);
  if (length == 0) {
    const DWORD code = GetLastError();
    throw Failure(SystemCode{code}, WithCode("FileSystem::AbsolutePath error " + path, code));
  }
  full.resize(length);
  return ConvertString(full);
}

bool FileSystem::Exists(const std::string& path) {
  const HANDLE handle = ::CreateFileW(ConvertString(path).c_str(), 0, 0, nullptr, OPEN_EXISTING,
                                      FILE_ATTRIBUTE_NORMAL, 0);
  if (handle != INVALID_HANDLE_VALUE) return CloseHandle(handle) != 0;
  const DWORD code = GetLastError();
  if (code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND) return false;
  throw Failure(SystemCode{code}, WithCode("FileSystem::Exists error " + path, code));
}

HANDLE FileSystem::CreateFileW(std::string path, unsigned desiredAccess,
                               unsigned creationDisposition, unsigned flagsAndAttributes) {
  const std::u16string wide = ConvertString(path);
  DWORD code = ERROR_SUCCESS;
  for (int retry = 0; retry < kSharingAttempts; ++retry) {
    const HANDLE handle = ::CreateFileW(wide.c_str(), desiredAccess, 0, nullptr,
                                        creationDisposition, flagsAndAttributes, 0);
    if (handle != INVALID_HANDLE_VALUE) return handle;
    code = GetLastError();
    if (code != ERROR_SHARING_VIOLATION) break;
    if (retry == 0)
      trace::fileSystem.notes.WriteErrorV("another opener has %s, waiting for half a second",
                                          path.c_str());
    trace::fileSystem.notes.WriteErrorV("FileSystem::CreateFile sharing violation file %s retry %d",
                                        path.c_str(), retry);
    Sleep(kSharingDelayMs);
  }
  TraceAndThrow("FileSystem::CreateFile error " + path, code);
}

bool FileSystem::MoveFileW(std::u16string from, std::u16string to) {
  return Move(from, to, 0);
}

bool FileSystem::MoveFileW(std::string from, std::string to) {
  return MoveFileW(ConvertString(from), ConvertString(to));
}

bool FileSystem::ReplaceFileW(const std::string& from, const std::string& to) {
  return Move(ConvertString(from), ConvertString(to), MOVEFILE_REPLACE_EXISTING);
}

bool FileSystem::Remove(std::u16string path) {
  if (DeleteFileW(path.c_str()) != 0) return true;
  const DWORD code = GetLastError();
  trace::fileSystem.WriteWarnV(
      "FileSystem::Remove Error deleting file = %s GetLastError code = %d ",
      ConvertString(path).c_str(), static_cast<int>(code));
  return false;
}

bool FileSystem::Remove(std::string path) {
  return Remove(ConvertString(path));
}

void FileSystem::RemoveLeftover(const std::string& path) {
  if (DeleteFileW(ConvertString(path).c_str()) != 0) return;
  const DWORD code = GetLastError();
  if (code != ERROR_FILE_NOT_FOUND) TraceAndThrow("FileSystem::Remove error " + path, code);
}

BOOL FileSystem::CreateDirectoryW(const std::u16string& path) {
  return ::CreateDirectoryW(path.c_str(), nullptr);
}

void FileSystem::CreateDirectoryW(const std::string& path) {
  CreateDirectoryW(ConvertString(path));
}

unsigned FileSystem::DeleteDirectory(const std::u16string& dir, bool recursive) {
  bool sawSubdirectory = false;
  const auto end = ForEachEntry(dir, [&](const std::u16string& name, bool isDirectory) -> DWORD {
    if (name.starts_with(u'.')) return ERROR_SUCCESS;
    const std::u16string path = dir + u"/" + name;
    if (!isDirectory) return Delete(path, DeleteFileW);
    if (recursive) return DeleteDirectory(path, true);
    sawSubdirectory = true;
    return ERROR_SUCCESS;
  });
  if (!end.has_value()) return ERROR_SUCCESS;
  if (*end != ERROR_NO_MORE_FILES) return *end;
  return sawSubdirectory ? ERROR_SUCCESS : Delete(dir, RemoveDirectoryW);
}

void FileSystem::DeleteDirectory(const std::string& dir, bool recursive) {
  DeleteDirectory(ConvertString(dir), recursive);
}

void FileSystem::ReadDirectory(const std::u16string& dir, WidePaths& out,
                               const std::u16string& pattern) {
  if (dir == u"." || dir == u"..") return;
  const auto end = ForEachEntry(dir, [&](const std::u16string& name, bool isDirectory) {
    const std::u16string path = dir + u"/" + name;
    if (isDirectory && name != u"." && name != u"..") ReadDirectory(path, out, pattern);
    if (name.find(pattern) != std::u16string::npos) out.push_back(path);
    return ERROR_SUCCESS;
  });
  if (!end.has_value())
    trace::fileSystem.WriteWarnV(
        "FileSystem::ReadDirectory invalid_handle_value GetLastError code=%d",
        static_cast<int>(GetLastError()));
  else if (*end != ERROR_NO_MORE_FILES)
    trace::fileSystem.WriteWarnV(
        "FileSystem::ReadDirectory FindNextFile error. GetLastError code=%d.\n",
        static_cast<int>(*end));
}

void FileSystem::ReadDirectory(const std::string& dir, NarrowPaths& out,
                               const std::string& pattern) {
  WidePaths found;
  ReadDirectory(ConvertString(dir), found, ConvertString(pattern));
  for (const std::u16string& path : found) out.push_back(ConvertString(path));
}
