#include "tools/Fd.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/Console.h"
#include "tools/Error.h"

namespace tool {

Fd::~Fd() {
  if (fd_ >= 0) ::close(fd_);
}

std::optional<FileId> IdOf(int fd) {
  struct stat status = {};
  if (::fstat(fd, &status) != 0) return std::nullopt;
  return FileId{status.st_dev, status.st_ino};
}

std::optional<FileId> IdOf(const std::string& path) {
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  return FileId{status.st_dev, status.st_ino};
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

void Print(std::string_view lines) {
  static const bool isTerminal = ::isatty(STDOUT_FILENO) == 1;
  const std::string shown = isTerminal ? Printable(lines, true) : std::string();
  WriteAll(STDOUT_FILENO, AsBytes(isTerminal ? shown : lines), "to standard output");
}

Bytes AsBytes(std::string_view text) {
  return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

}  // namespace tool
