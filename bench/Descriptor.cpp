#include "bench/Descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace bench {

void ThrowSystemError(const char* call) {
  throw std::system_error(errno, std::generic_category(), call);
}

Descriptor::Descriptor(const std::filesystem::path& path, int flags)
    : fd(::open(path.c_str(), flags | O_CLOEXEC, 0644)) {
  if (fd < 0) ThrowSystemError(path.c_str());
}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  std::swap(fd, other.fd);
  return *this;
}

void Descriptor::Close() noexcept {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

void Descriptor::Append(std::span<const unsigned char> bytes) const {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0) ThrowSystemError("write");
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
}

void Descriptor::Flush() const {
  if (::fdatasync(fd) != 0) ThrowSystemError("fdatasync");
}

void Descriptor::FlushDirectory() const {
  if (::fsync(fd) != 0) ThrowSystemError("fsync");
}

}  // namespace bench
