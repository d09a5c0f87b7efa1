#include "fs/FileSystem.h"

#include "fs/ScopedFindHandle.h"
#include "platform/Failure.h"
#include "platform/Trace.h"

namespace {

constexpr unsigned kSharingAttempts = 25;
constexpr DWORD kSharingDelayMs = 20;

}  // namespace

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
  std::u16string full(wide.size() + MAX_PATH, u'\0');
  DWORD length =
      GetFullPathNameW(wide.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
  if (length >= full.size()) {
    full.resize(length);
    length = GetFullPathNameW(wide.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
  }
  if (length == 0 || length >= full.size()) {
    const DWORD code = GetLastError();
    throw Failure(FailureOf(code), "FileSystem::AbsolutePath error " + path +
                                       " GetLastError code= " + std::to_string(code));
  }
  full.resize(length);
  return ConvertString(full);
}

HANDLE FileSystem::CreateFileW(std::string path, unsigned desiredAccess,
                               unsigned creationDisposition, unsigned flagsAndAttributes) {
  const std::u16string wide = ConvertString(path);
  DWORD code = ERROR_SUCCESS;
  for (unsigned retry = 0; retry < kSharingAttempts; ++retry) {
    const HANDLE handle = ::CreateFileW(wide.c_str(), desiredAccess, 0, nullptr,
                                        creationDisposition, flagsAndAttributes, 0);
    if (handle != INVALID_HANDLE_VALUE) return handle;
    code = GetLastError();
    if (code != ERROR_SHARING_VIOLATION) break;
    trace::fileSystem.NoteErrorV("FileSystem::CreateFile sharing violation file %s retry %d",
                                 path.c_str(), static_cast<int>(retry));
    Sleep(kSharingDelayMs);
  }
  const std::string text =
      "FileSystem::CreateFile error " + path + " GetLastError code= " + std::to_string(code);
  trace::fileSystem.WriteErrorV("%s", text.c_str());
  throw Failure(FailureOf(code), text);
}

namespace {

// A rename with the waits and the words that both kinds share.
template <class Rename>
bool MoveWithRetry(const std::u16string& from, const std::u16string& to, Rename rename) {
  DWORD code = ERROR_SUCCESS;
  for (unsigned retry = 0; retry < kSharingAttempts; ++retry) {
    if (rename(from.c_str(), to.c_str()) == 1) return true;
    code = GetLastError();
    if (code != ERROR_SHARING_VIOLATION) break;
    trace::fileSystem.NoteWarnV("FileSystem::MoveFile sharing violation file retrying %d",
                                static_cast<int>(retry));
    Sleep(kSharingDelayMs);
  }
  const std::string text = "FileSystem::MoveFile error " + FileSystem::ConvertString(from) +
                           " -> " + FileSystem::ConvertString(to) +
                           " GetLastError code= " + std::to_string(code);
  trace::fileSystem.WriteErrorV("%s", text.c_str());
  throw Failure(FailureOf(code), text);
}

}  // namespace

bool FileSystem::MoveFileW(std::u16string from, std::u16string to) {
  return MoveWithRetry(from, to, ::MoveFileW);
}

bool FileSystem::MoveFileW(std::string from, std::string to) {
  return MoveFileW(ConvertString(from), ConvertString(to));
}

bool FileSystem::ReplaceFileW(const std::string& from, const std::string& to) {
  return MoveWithRetry(ConvertString(from), ConvertString(to),
                       [](const WCHAR* source, const WCHAR* target) {
                         return MoveFileExW(source, target, MOVEFILE_REPLACE_EXISTING);
                       });
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

BOOL FileSystem::CreateDirectoryW(const std::u16string& path) {
  return ::CreateDirectoryW(path.c_str(), nullptr);
}

void FileSystem::CreateDirectoryW(const std::string& path) {
  CreateDirectoryW(ConvertString(path));
}

namespace {

// 0, or the platform's code.
unsigned DeleteEntry(const std::u16string& path) {
  if (SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL) == 0 ||
      DeleteFileW(path.c_str()) == 0)
    return GetLastError();
  return ERROR_SUCCESS;
}

}  // namespace

unsigned FileSystem::DeleteDirectory(const std::u16string& dir, bool recursive) {
  WIN32_FIND_DATAW entry{};
  ScopedFindHandle search(FindFirstFileW((dir + u"/*.*").c_str(), &entry));
  if (!search.IsValid()) return ERROR_SUCCESS;

  bool sawSubdirectory = false;
  do {
    if (entry.cFileName[0] == u'.') continue;
    const std::u16string fullPath = dir + u"/" + entry.cFileName;
    unsigned code = ERROR_SUCCESS;
    if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
      code = DeleteEntry(fullPath);
    } else if (recursive) {
      code = DeleteDirectory(fullPath, true);
    } else {
      sawSubdirectory = true;
    }
    if (code != ERROR_SUCCESS) return code;
  } while (FindNextFileW(search.Get(), &entry) == 1);

  const DWORD code = GetLastError();
  search.Close();
  if (code != ERROR_NO_MORE_FILES) return code;
  if (sawSubdirectory) return ERROR_SUCCESS;
  if (SetFileAttributesW(dir.c_str(), FILE_ATTRIBUTE_NORMAL) == 0 ||
      RemoveDirectoryW(dir.c_str()) == 0)
    return GetLastError();
  return ERROR_SUCCESS;
}

void FileSystem::DeleteDirectory(const std::string& dir, bool recursive) {
  DeleteDirectory(ConvertString(dir), recursive);
}

void FileSystem::ReadDirectory(const std::u16string& dir, WidePaths& out,
                               const std::u16string& pattern) {
  if (dir == u"." || dir == u"..") return;
  WIN32_FIND_DATAW entry{};
  ScopedFindHandle search(FindFirstFileW((dir + u"/*.*").c_str(), &entry));
  if (!search.IsValid()) {
    const DWORD code = GetLastError();
    trace::fileSystem.WriteWarnV(
        "FileSystem::ReadDirectory invalid_handle_value GetLastError code=%d",
        static_cast<int>(code));
    return;
  }
  do {
    const std::u16string name = entry.cFileName;
    const bool isDirectory = (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    if (isDirectory && name != u"." && name != u"..")
      ReadDirectory(dir + u"/" + name, out, pattern);
    if (name.find(pattern) != std::u16string::npos) out.push_back(dir + u"/" + name);
  } while (FindNextFileW(search.Get(), &entry) != 0);

  const DWORD code = GetLastError();
  search.Close();
  if (code != ERROR_NO_MORE_FILES)
    trace::fileSystem.WriteWarnV(
        "FileSystem::ReadDirectory FindNextFile error. GetLastError code=%d.\n",
        static_cast<int>(code));
}

void FileSystem::ReadDirectory(const std::string& dir, NarrowPaths& out,
                               const std::string& pattern) {
  WidePaths found;
  ReadDirectory(ConvertString(dir), found, ConvertString(pattern));
  for (const std::u16string& path : found) out.push_back(ConvertString(path));
}
