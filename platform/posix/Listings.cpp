// Directory listings.
#include <dirent.h>
#include <fcntl.h>

#include <cstddef>

#include "platform/posix/Handles.h"

namespace {

static_assert(sizeof(WIN32_FIND_DATAW) == 592 && offsetof(WIN32_FIND_DATAW, cFileName) == 44,
              "Win32's own layout");

constinit platform::HandleTable<DIR, 0x80000000U, 256, platform::Guarded::Listings> listings;

// A symbolic link is listed as a plain file, wherever it leads, so that deleting a tree deletes the
// link and not what is behind it.
DWORD AttributesOf(mode_t mode) {
  const DWORD directory = S_ISDIR(mode) ? FILE_ATTRIBUTE_DIRECTORY : 0;
  const DWORD readOnly = platform::IsReadOnly(mode) ? FILE_ATTRIBUTE_READONLY : 0;
  return (directory | readOnly) != 0 ? directory | readOnly : FILE_ATTRIBUTE_NORMAL;
}

// The next entry that is still there.
BOOL Next(DIR* directory, WIN32_FIND_DATAW& data) {
  while (true) {
    errno = 0;
    const dirent* entry = readdir(directory);
    if (entry == nullptr && errno == 0) return platform::SetLastError(ERROR_NO_MORE_FILES), 0;
    struct stat status {};
    if (entry == nullptr ||
        fstatat(dirfd(directory), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      if (entry != nullptr && errno == ENOENT) continue;  // deleted since
      return platform::Result(errno);
    }
    data = {};
    data.dwFileAttributes = AttributesOf(status.st_mode);
    for (std::size_t i = 0; entry->d_name[i] != '\0' && i < MAX_PATH - 1; ++i)
      data.cFileName[i] = platform::Widened(entry->d_name[i]);
    return platform::Result(0);
  }
}

}  // namespace

HANDLE FindFirstFileW(const WCHAR* pattern, WIN32_FIND_DATAW* data) {
  const platform::PathName path(pattern);
  char buffer[PATH_MAX];
  DIR* directory = path.error == 0 ? opendir(platform::ParentOf(path.bytes, buffer)) : nullptr;
  if (directory == nullptr) {
    platform::Result(path.error != 0 ? path.error : errno == ENOENT ? ENOTDIR : errno);
    return INVALID_HANDLE_VALUE;
  }
  HANDLE handle = INVALID_HANDLE_VALUE;
  if (Next(directory, *data) != 0) {
    handle = listings.Add(directory);
    if (handle == INVALID_HANDLE_VALUE) platform::Result(EMFILE);
  }
  if (handle == INVALID_HANDLE_VALUE) closedir(directory);
  return handle;
}

BOOL FindNextFileW(HANDLE find, WIN32_FIND_DATAW* data) {
  DIR* directory = listings.Find(find);
  return directory != nullptr ? Next(directory, *data) : 0;
}

BOOL FindClose(HANDLE find) {
  DIR* directory = listings.Remove(find);
  if (directory == nullptr) return 0;
  closedir(directory);  // gone, whatever it returns
  return platform::Result(0);
}
