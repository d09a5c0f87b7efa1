// File descriptors that close themselves, whole writes, and which file is which.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace tool {

using Bytes = std::span<const unsigned char>;

// Owns a descriptor; -1 owns nothing.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd();

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// The same for all names of a file.
using FileId = std::pair<dev_t, ino_t>;
std::optional<FileId> IdOf(int fd);
std::optional<FileId> IdOf(const std::string& path);  // follows symbolic links

// Throws Fault("cannot <action>: <text of errno>").
[[noreturn]] void ThrowErrno(const std::string& action);

// Opens a directory. Throws Fault.
Fd OpenDirectory(const std::string& path);

// Writes all of data, however many calls that takes. Messages call the file
// `name`. Throws Fault.
void WriteAll(int fd, Bytes data, const std::string& name);

// Writes lines to standard output, printable ones if that is a terminal.
// Throws Fault.
void Print(std::string_view lines);

Bytes AsBytes(std::string_view text);

}  // namespace tool
