// Directory listings.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>

#include "platform/Win32.h"
#include "platform/posix/ExclusiveFile.h"
#include "platform/posix/FileDescriptor.h"
#include "platform/posix/Handles.h"
#include "platform/posix/LastError.h"
#include "platform/posix/PathName.h"

namespace {

static_assert(sizeof(WIN32_FIND_DATAW) == 592 && offsetof(WIN32_FIND_DATAW, cFileName) == 44,
              "Win32's own layout");

void SetName(WIN32_FIND_DATAW& data, const char* name) {
  std::size_t length = 0;
  for (; name[length] != '\0' && length < MAX_PATH - 1; ++length)
    data.cFileName[length] = platform::Widened(name[length]);
  data.cFileName[length] = 0;
}

// A symbolic link is listed as a plain file, wherever it leads, so that deleting
// a tree deletes the link and not what is behind it.
DWORD AttributesOf(mode_t mode) {
  const DWORD directory = S_ISDIR(mode) ? FILE_ATTRIBUTE_DIRECTORY : 0;
  const DWORD readOnly = !S_ISLNK(mode) && platform::IsReadOnly(mode) ? FILE_ATTRIBUTE_READONLY : 0;
  return (directory | readOnly) != 0 ? directory | readOnly : FILE_ATTRIBUTE_NORMAL;
}

// The next entry that is still there. Win32 code, ERROR_NO_MORE_FILES at the
// end.
DWORD Next(DIR* directory, WIN32_FIND_DATAW& data) {
  while (true) {
    errno = 0;
    const dirent* entry = readdir(directory);
    if (entry == nullptr) return errno == 0 ? ERROR_NO_MORE_FILES : platform::ErrorOf(errno);

    struct stat status {};
    if (fstatat(dirfd(directory), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT) continue;  // deleted since
      return platform::ErrorOf(errno);
    }
    const auto size = static_cast<std::uint64_t>(status.st_size);
    data = {};
    data.dwFileAttributes = AttributesOf(status.st_mode);
    data.nFileSizeHigh = static_cast<DWORD>(size >> 32);
    data.nFileSizeLow = static_cast<DWORD>(size);
    SetName(data, entry->d_name);
    return ERROR_SUCCESS;
  }
}

DWORD Start(const WCHAR* pattern, WIN32_FIND_DATAW& data, HANDLE& handle) {
  platform::PathName path(pattern);
  if (path.Error() != ERROR_SUCCESS) return path.Error();
  if (!path.CutTail("/*.*")) return ERROR_NOT_SUPPORTED;

  const char* name = path.Text()[0] != '\0' ? path.Text() : "/";
  platform::FileDescriptor file = platform::Open(name, O_RDONLY | O_DIRECTORY);
  DIR* directory = file.IsOpen() ? fdopendir(file.Number()) : nullptr;
  if (directory == nullptr)
    return errno == ENOENT ? ERROR_PATH_NOT_FOUND : platform::ErrorOf(errno);
  file.Release();  // the stream's now
  DWORD code = Next(directory, data);
  if (code == ERROR_SUCCESS) {
    handle = platform::AddHandle(platform::HandleKind::Listing, directory);
    if (handle == INVALID_HANDLE_VALUE) code = ERROR_TOO_MANY_OPEN_FILES;
  }
  if (code != ERROR_SUCCESS) closedir(directory);
  return code;
}

}  // namespace

HANDLE FindFirstFileW(const WCHAR* pattern, WIN32_FIND_DATAW* data) {
  HANDLE handle = INVALID_HANDLE_VALUE;
  platform::SetLastError(data == nullptr ? ERROR_INVALID_PARAMETER : Start(pattern, *data, handle));
  return handle;
}

BOOL FindNextFileW(HANDLE find, WIN32_FIND_DATAW* data) {
  if (data == nullptr) return platform::Result(ERROR_INVALID_PARAMETER);
  void* directory = platform::FindHandle(find, platform::HandleKind::Listing);
  return directory != nullptr ? platform::Result(Next(static_cast<DIR*>(directory), *data)) : 0;
}

BOOL FindClose(HANDLE find) {
  void* directory = platform::RemoveHandle(find, platform::HandleKind::Listing);
  if (directory == nullptr) return 0;
  closedir(static_cast<DIR*>(directory));  // gone, whatever it returns
  return platform::Result(ERROR_SUCCESS);
}
