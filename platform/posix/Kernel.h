// What the Win32 calls need of the kernel: paths as bytes, errno values as error codes, descriptors
// that close themselves, exclusive opens, syncs.
//
// An int result is 0 or an errno value; the calls translate it once, with Result. Nothing here
// takes memory or throws.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cerrno>
#include <climits>
#include <mutex>
#include <utility>

#include "platform/Win32.h"

namespace platform {

static_assert(sizeof(off_t) == 8, "build with -D_FILE_OFFSET_BITS=64");

// ---- Forks ----

// The mutexes of this layer. A fork waits for all of them, so that the child finds them free: the
// threads that could release them exist in the parent alone.
enum class Guarded { Files, Listings, Memory, Callbacks, Records, Count };
std::mutex& MutexOf(Guarded what);

// ---- Errors ----

void SetLastError(DWORD code);

// Sets the thread's error to the code for an errno value. TRUE for 0, else FALSE.
BOOL Result(int error);

// Result for a call that took a path. ENOENT alone does not tell whether the name or a directory on
// the way to it is missing; Win32 has a code for each.
BOOL Result(int error, const char* path);

// ---- Paths ----

struct PathName {
  // From the UTF-16 of a Win32 call. Callers widen a byte path byte by byte, zero- or
  // sign-extended: a unit of 0x0000-0x00FF or 0xFF80-0xFFFF is the byte it came from.
  explicit PathName(const WCHAR* units);

  int error = 0;  // EILSEQ: another unit; ENAMETOOLONG: PATH_MAX bytes or more
  char bytes[PATH_MAX] = {};
};

// Widens one byte of a file name, as a signed 8-bit value.
constexpr WCHAR Widened(char byte) {
  return static_cast<WCHAR>(static_cast<signed char>(byte));
}

// The directory that holds the last component of path, as dirname(3) gives it. The result may point
// into buffer. REQUIRES: path has fewer than PATH_MAX bytes.
const char* ParentOf(const char* path, char (&buffer)[PATH_MAX]);

// How often another process may change a name under us before we give up. Each time it has got
// something done.
inline constexpr int kMaxRaces = 16;

// A file without any write permission has FILE_ATTRIBUTE_READONLY.
constexpr bool IsReadOnly(mode_t mode) {
  return (mode & 0222) == 0;
}

// ---- Descriptors ----

class FileDescriptor {
 public:
  explicit FileDescriptor(int number = -1) : number_(number) {}
  FileDescriptor(FileDescriptor&& other) noexcept
      : number_(std::exchange(other.number_, -1)), locker_(other.locker_) {}
  FileDescriptor& operator=(FileDescriptor other) noexcept {
    std::swap(number_, other.number_);
    std::swap(locker_, other.locker_);
    return *this;
  }
  ~FileDescriptor();

  bool IsOpen() const { return number_ >= 0; }
  int Number() const { return number_; }

  // Returns 0 or an errno value, EAGAIN for a file that another descriptor has locked. The lock
  // ends when the process that took it destroys the descriptor, although children that it has
  // forked meanwhile go on with copies of it.
  int Lock();
  // True if this process took the lock.
  bool IsLockedHere() const;

 private:
  int number_;
  DWORD locker_ = 0;  // process
};

// Makes a system call until no signal interrupts it.
template <typename Call>
auto Uninterrupted(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

// open(2) that never blocks, never becomes a controlling terminal, is not inherited over exec, and
// never takes the numbers 0 to 2. A file that this creates is its owner's alone. On failure the
// result is not open and errno says why.
FileDescriptor Open(const char* path, int flags);

// Opens a regular file and locks it: share mode 0 on a system whose files are shared. The lock is
// advisory and on the open file description (flock(2)). It excludes every other opener that comes
// through here, in this process or another, and ends with the descriptor.
//
// flags: O_RDONLY, O_WRONLY or O_RDWR, and O_CREAT with or without O_EXCL. Never waits. Creates
// nothing at the end of a symbolic link: what it leads to may be on a disk that is not mounted.
// EAGAIN: another opener has the file. EACCES: not a regular file, or writing to a read-only one.
// On failure the state of `file` is undefined.
int OpenExclusively(const char* path, int flags, FileDescriptor& file);

// Whether this process has opened the file that path leads to, through CreateFileW, and holds it.
bool IsHeldHere(const char* path);

int SyncData(const FileDescriptor& file);

// Opens the directory that holds the last component of path, to sync it after a change of names.
// Opened before the change: what can be refused is refused while nothing has happened. A directory
// that may be searched but not read cannot be opened; that is no failure, and `directory` is then
// not open. ENOTDIR: there is no such directory.
int OpenParent(const char* path, FileDescriptor& directory);

// Makes the names in a directory survive a power cut. For one that is not open (see OpenParent)
// this is a sync(2) of everything. A file system that cannot sync directories counts as done.
int SyncDirectory(const FileDescriptor& directory);

}  // namespace platform
