#include "tools/Fd.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/Error.h"

namespace tool {

Fd::~Fd() {
  if (fd_ >= 0) ::close(fd_);
}

void ThrowErrno(const std::string& action) {
  const int code = errno;
  throw Fault(fmt::format("cannot {}: {}", action, std::strerror(code)));
}

Fd OpenDirectory(const std::string& path) {
  Fd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd.valid()) ThrowErrno("open the directory " + path);
  return fd;
}

void WriteAll(int fd, Bytes data, const std::string& name) {
  while (!data.empty()) {
    const ssize_t written = ::write(fd, data.data(), data.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) ThrowErrno("write " + name);
    data = data.subspan(static_cast<size_t>(written));
  }
}

void Print(std::string_view text) {
  WriteAll(STDOUT_FILENO, AsBytes(text), "to standard output");
}

Bytes AsBytes(std::string_view text) {
  return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

}  // namespace tool
