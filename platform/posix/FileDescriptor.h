// An open file description of the kernel, owned, and the calls on it that
// have to be made again when a signal interrupts them.
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <utility>

#include "platform/Win32.h"

namespace platform {

static_assert(sizeof(off_t) == 8, "build with -D_FILE_OFFSET_BITS=64");

class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int number) : number_(number) {}
  FileDescriptor(FileDescriptor&& other) noexcept : number_(other.Release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;
  ~FileDescriptor() { Close(); }

  bool IsOpen() const { return number_ != kNone; }
  int Number() const { return number_; }
  int Release() { return std::exchange(number_, kNone); }

  // The descriptor is released whatever close(2) returns. What must not be
  // lost has been synced before.
  void Close();

 private:
  static constexpr int kNone = -1;
  int number_ = kNone;
};

// Makes a system call until no signal interrupts it.
template <typename Call>
auto Uninterrupted(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

// open(2) that never blocks, never becomes a controlling terminal, is not
// inherited over exec, and never takes the numbers 0 to 2. A file that this
// creates is its owner's alone. On failure the result is not open and errno
// says why.
FileDescriptor Open(const char* path, int flags);

// Whether descriptor and path lead to the same inode now.
bool LeadsTo(const char* path, const FileDescriptor& file);

// fdatasync(2). 0, or the errno value.
int SyncData(const FileDescriptor& file);

// Opens the directory that the last component of path is in, to sync it after
// a change of names. Opened before the change: what can be refused is refused
// while nothing has happened. A directory that may be searched but not read
// cannot be opened; `directory` then stays closed. Returns a Win32 code.
DWORD OpenParent(const char* path, FileDescriptor& directory);

// Makes the names in the directory survive a power cut. One that is not open
// (see OpenParent) costs a sync(2) of everything. 0, or the errno value; a
// file system that has no such notion counts as done.
int SyncDirectory(const FileDescriptor& directory);

}  // namespace platform
