// An open file description of the kernel, owned; and the calls on it that
// have to be made again when a signal interrupts them.
#pragma once

#include <sys/types.h>

#include <utility>

namespace platform {

static_assert(sizeof(off_t) == 8, "build with -D_FILE_OFFSET_BITS=64");

class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int number) : number_(number) {}
  FileDescriptor(FileDescriptor&& other) noexcept : number_(std::exchange(other.number_, kNone)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;
  ~FileDescriptor() { Close(); }

  bool IsOpen() const { return number_ != kNone; }
  int Number() const { return number_; }

  // Lets go of the descriptor whatever comes of it. 0, or the errno value.
  int Close();

 private:
  static constexpr int kNone = -1;
  int number_ = kNone;
};

// open(2) that never blocks, never becomes a controlling terminal, is not
// inherited over exec, and never takes the numbers 0 to 2. On failure the
// result is not open and errno says why.
FileDescriptor Open(const char* path, int flags, mode_t mode = 0);

// Whether descriptor and path lead to the same inode just now.
bool LeadsTo(const char* path, const FileDescriptor& file);

// fsync(2) of a directory: makes the names in it survive a power cut. 0, or
// the errno value. A file system that has no such notion counts as done.
int SyncDirectory(const FileDescriptor& directory);
int SyncDirectory(const char* path);

}  // namespace platform
