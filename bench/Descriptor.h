// An open file, closed at the end of its scope. Failures throw
// std::runtime_error with the name of the call and the system's text.
#pragma once

#include <cstddef>
#include <filesystem>
#include <span>

namespace bench {

class Descriptor {
 public:
  Descriptor() = default;
  Descriptor(const std::filesystem::path& path, int flags);  // open(2), mode 0644
  Descriptor(Descriptor&& other) noexcept : fd(other.fd) { other.fd = -1; }
  Descriptor& operator=(Descriptor&& other) noexcept;
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { Close(); }

  int Number() const { return fd; }
  void Close() noexcept;

  // All of the bytes, at the end of what was written before.
  void Append(std::span<const unsigned char> bytes) const;
  void Flush() const;           // fdatasync(2)
  void FlushDirectory() const;  // fsync(2)

 private:
  int fd = -1;
};

// Throws for a system call that did not succeed, as errno has it.
[[noreturn]] void ThrowSystemError(const char* call);

}  // namespace bench
