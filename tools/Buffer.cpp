#include "tools/Buffer.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <sstream>

#include "tools/Error.h"

namespace tool {
namespace {

constexpr size_t kFirstReadSize = size_t{64} * 1024;
constexpr int kReadAttempts = 3;

[[noreturn]] void ThrowTooLarge(const std::string& path) {
  throw Fault(fmt::format("cannot store {}: it is too large, a blob has at most {} bytes", path,
                          kMaxBlobSize));
}

// One read(2) that signals do not end. Throws Fault.
size_t ReadSome(int fd, unsigned char* to, size_t size, const std::string& path) {
  for (;;) {
    const ssize_t got = ::read(fd, to, size);
    if (got >= 0) return static_cast<size_t>(got);
    if (errno != EINTR) ThrowErrno("read " + path);
  }
}

// Everything up to the end of the file; `expected` is how much there seems to be.
Bytes ReadToEnd(int fd, uint64_t expected, Buffer& buffer, const std::string& path) {
  size_t size = 0;
  // One byte more than expected: the end is then seen without growing.
  buffer.Reserve(static_cast<size_t>(expected) + 1);
  for (;;) {
    if (size > kMaxBlobSize) ThrowTooLarge(path);
    if (size == buffer.capacity())
      buffer.Reserve(std::clamp(size * 2, kFirstReadSize, size_t{kMaxBlobSize} + 1));
    const size_t got = ReadSome(fd, buffer.data() + size, buffer.capacity() - size, path);
    if (got == 0) return {buffer.data(), size};
    size += got;
  }
}

bool SameContents(const struct stat& a, const struct stat& b) {
  return a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
         a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

struct stat StatOf(int fd, const std::string& path) {
  struct stat status = {};
  if (::fstat(fd, &status) != 0) ThrowErrno("read " + path);
  return status;
}

}  // namespace

unsigned char* Buffer::Reserve(size_t size) {
  if (size <= capacity_) return data_.get();
  void* grown =
      std::realloc(data_.get(), size);  // NOLINT(cppcoreguidelines-no-malloc): grows in place
  if (grown == nullptr) throw Fault(fmt::format("cannot get {} bytes of memory", size));
  static_cast<void>(data_.release());
  data_.reset(static_cast<unsigned char*>(grown));
  capacity_ = size;
  return data_.get();
}

SourceFile ReadRegularFile(const std::string& path, Buffer& buffer) {
  // O_NONBLOCK: should a pipe have taken the file's place, open returns.
  const Fd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd.valid()) ThrowErrno("read " + path);
  SourceFile source;
  for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
    const struct stat before = StatOf(fd.get(), path);
    if (!S_ISREG(before.st_mode))
      throw Fault(fmt::format("cannot read {}: it is not a regular file", path));
    if (static_cast<uint64_t>(before.st_size) > kMaxBlobSize) ThrowTooLarge(path);
    if (attempt > 0 && ::lseek(fd.get(), 0, SEEK_SET) < 0) ThrowErrno("read " + path);
    source.bytes = ReadToEnd(fd.get(), static_cast<uint64_t>(before.st_size), buffer, path);
    const struct stat after = StatOf(fd.get(), path);
    // Files of /proc and the like say 0 bytes and hold more: no sign of a change.
    source.changed =
        !SameContents(before, after) ||
        (before.st_size != 0 && static_cast<size_t>(before.st_size) != source.bytes.size());
    if (!source.changed) break;
  }
  return source;
}

bool IsRegularFile(const std::string& path) {
  struct stat status = {};
  return path != "-" && ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::vector<std::string> ReadWords() {
  Buffer buffer;
  const Bytes bytes = ReadStream("-", buffer);
  std::istringstream text(std::string(bytes.begin(), bytes.end()));
  return {std::istream_iterator<std::string>(text), {}};
}

Bytes ReadStream(const std::string& path, Buffer& buffer) {
  if (path == "-") return ReadToEnd(STDIN_FILENO, kFirstReadSize, buffer, "standard input");
  const Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) ThrowErrno("read " + path);
  const struct stat status = StatOf(fd.get(), path);
  if (S_ISDIR(status.st_mode))
    throw Fault(fmt::format("cannot store {}: it is a directory; use `blobring import`", path));
  if (S_ISREG(status.st_mode) && static_cast<uint64_t>(status.st_size) > kMaxBlobSize)
    ThrowTooLarge(path);
  return ReadToEnd(fd.get(), S_ISREG(status.st_mode) ? static_cast<uint64_t>(status.st_size) : 0,
                   buffer, path);
}

}  // namespace tool
