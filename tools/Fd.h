// File descriptors that close themselves, and whole writes.
#pragma once

#include <cstddef>
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

// Throws Fault("cannot <action>: <text of errno>").
[[noreturn]] void ThrowErrno(const std::string& action);

// Opens a directory; throws Fault.
Fd OpenDirectory(const std::string& path);

// Writes all of data, however many calls that takes. Throws Fault, in which
// `name` stands for the file.
void WriteAll(int fd, Bytes data, const std::string& name);

// WriteAll to standard output.
void Print(std::string_view text);

Bytes AsBytes(std::string_view text);

}  // namespace tool
