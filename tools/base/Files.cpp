#include "tools/base/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <tuple>

#include "md5/MD5.h"
#include "tools/base/Console.h"
#include "tools/base/Error.h"
#include "tools/base/Interrupt.h"

namespace tool {
namespace {

constexpr uint64_t kLeastReadSize = uint64_t{64} * 1024;
constexpr int kReadAttempts = 3;

struct stat StatOf(int fd, const std::string& path) {
  struct stat status = {};
  if (::fstat(fd, &status) != 0) ThrowErrno("read " + path);
  return status;
}

Fd OpenToRead(int directory, const std::string& name, const std::string& path, int flags) {
  Fd fd(::openat(directory, name.c_str(), O_RDONLY | O_CLOEXEC | flags));
  if (!fd.valid()) ThrowErrno("read " + path);
  return fd;
}

void RequireBlobSize(uint64_t size, const std::string& path) {
  if (size > kMaxBlobSize)
    throw Fault("cannot store {}: it is too large, a blob has at most {} bytes", path,
                kMaxBlobSize);
}

// Everything up to the end of the file, whose size was last reported as `size`.
std::string_view ReadToEnd(int fd, uint64_t size, Buffer& buffer, const std::string& path) {
  uint64_t done = 0;
  for (;;) {
    RequireBlobSize(std::max(done, size), path);
    // One byte more than expected, to see the end without growing once more.
    if (done == buffer.size() || done == 0)
      Grow(buffer, std::max({size + 1, std::min(2 * done, kMaxBlobSize + 1), kLeastReadSize}));
    const ssize_t got = ::read(fd, buffer.data() + done, buffer.size() - done);
    if (got < 0 && (errno != EINTR || IsInterrupted())) ThrowErrno("read " + path);
    if (got == 0) return {buffer.data(), done};
    done += static_cast<uint64_t>(std::max<ssize_t>(got, 0));
  }
}

}  // namespace

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
  if (errno == EINTR) ThrowIfInterrupted();
  throw Fault("cannot {}: {}", action, std::strerror(errno));
}

void MakeDirectory(const std::string& path) {
  std::error_code code;
  std::vector<std::filesystem::path> changed;
  for (std::filesystem::path at = std::filesystem::absolute(path);
       !std::filesystem::exists(at, code) && at.has_relative_path(); at = at.parent_path())
    changed.push_back(at.parent_path());
  std::filesystem::create_directories(path, code);
  if (code) throw Fault("cannot make the directory {}: {}", path, code.message());
  for (const std::filesystem::path& directory : changed)
    if (::fsync(OpenDirectory(directory.string()).get()) != 0)
      ThrowErrno("flush the directory " + directory.string());
}

void CreateAsClosedAs(const std::string& path) {
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0) return;
  mode_t closed = ::umask(077);
  if ((status.st_mode & S_IRGRP) == 0) closed |= S_IRWXG;
  if ((status.st_mode & S_IROTH) == 0) closed |= S_IRWXO;
  ::umask(closed);
}

Fd OpenDirectory(const std::string& path) {
  Fd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd.valid()) ThrowErrno("open the directory " + path);
  return fd;
}

void WriteAll(int fd, std::string_view data, const std::string& name) {
  while (!data.empty()) {
    const ssize_t written = ::write(fd, data.data(), data.size());
    if (written < 0 && errno == EINTR && !IsInterrupted()) continue;
    if (written < 0) ThrowErrno("write " + name);
    data.remove_prefix(static_cast<size_t>(written));
  }
}

void PrintText(std::string_view lines) {
  static const bool isTerminal = ::isatty(STDOUT_FILENO) == 1;
  WriteAll(STDOUT_FILENO,
           IsColoured(STDOUT_FILENO) ? Coloured(lines)
           : isTerminal              ? Printable(lines, true)
                                     : std::string(lines),
           "to standard output");
}

void Grow(Buffer& buffer, size_t size) {
  try {
    if (size > buffer.size()) buffer.resize(size);
  } catch (const std::exception&) {
    throw Fault("cannot get {} bytes of memory", size);
  }
}

SourceFile ReadRegularFile(const std::string& path, Buffer& buffer) {
  return ReadRegularFile(AT_FDCWD, path, path, buffer);
}

SourceFile ReadRegularFile(int directory, const std::string& name, const std::string& path,
                           Buffer& buffer) {
  // O_NONBLOCK: should a pipe have taken the file's place, open returns.
  const Fd fd = OpenToRead(directory, name, path, O_NOFOLLOW | O_NONBLOCK);
  const auto stamp = [](const struct stat& status) {
    return std::tuple(status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec);
  };
  SourceFile source;
  for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
    const struct stat before = StatOf(fd.get(), path);
    if (!S_ISREG(before.st_mode)) throw Fault("cannot read {}: it is not a regular file", path);
    if (::lseek(fd.get(), 0, SEEK_SET) < 0) ThrowErrno("read " + path);
    const auto size = static_cast<uint64_t>(before.st_size);
    source.bytes = ReadToEnd(fd.get(), size, buffer, path);
    // Files of /proc and the like say 0 bytes and hold more: no sign of a change.
    source.changed = stamp(before) != stamp(StatOf(fd.get(), path)) ||
                     (size != 0 && size != source.bytes.size());
    if (!source.changed) break;
  }
  return source;
}

namespace {

// Messages call the file `path`.
LargeItem Digest(Fd file, const std::string& path) {
  const auto fd = std::make_shared<const Fd>(std::move(file));
  const struct stat status = StatOf(fd->get(), path);
  if (!S_ISREG(status.st_mode)) throw Fault("cannot read {}: it is not a regular file", path);
  RequireBlobSize(static_cast<uint64_t>(status.st_size), path);
  LargeItem item;
  item.name = path;
  item.readAt = [fd, path](uint64_t offset, std::span<std::byte> room) {
    size_t done = 0;
    while (done < room.size()) {
      ThrowIfInterrupted();
      const ssize_t got = ::pread(fd->get(), room.data() + done, room.size() - done,
                                  static_cast<off_t>(offset + done));
      if (got < 0 && errno != EINTR) ThrowErrno("read " + path);
      if (got == 0) break;
      done += static_cast<size_t>(std::max<ssize_t>(got, 0));
    }
    return done;
  };
  MD5 md5;
  std::vector<std::byte> piece(kLeastReadSize);
  while (const size_t got = item.readAt(item.size, piece)) {
    md5.update(reinterpret_cast<const uint8_t*>(piece.data()), static_cast<uint32_t>(got));
    item.size += got;
    RequireBlobSize(item.size, path);
  }
  md5.finalize();
  md5.raw_digest(item.hash.data());
  return item;
}

}  // namespace

LargeItem DigestFile(int directory, const std::string& name, const std::string& path) {
  return Digest(OpenToRead(directory, name, path, O_NOFOLLOW | O_NONBLOCK), path);
}

std::optional<LargeItem> DigestLarge(const std::string& path) {
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(path, ignored) ||
      std::filesystem::file_size(path, ignored) <= kLargeSize || ignored)
    return std::nullopt;
  try {
    return Digest(OpenToRead(AT_FDCWD, path, path, O_NONBLOCK), path);
  } catch (const Fault&) {
    return std::nullopt;
  }
}

std::string_view ReadStream(const std::string& path, Buffer& buffer) {
  if (path == "-") return ReadToEnd(STDIN_FILENO, 0, buffer, "standard input");
  const Fd fd = OpenToRead(AT_FDCWD, path, path, 0);
  const struct stat status = StatOf(fd.get(), path);
  if (S_ISDIR(status.st_mode)) throw Fault("cannot read {}: it is a directory", path);
  const uint64_t size = S_ISREG(status.st_mode) ? static_cast<uint64_t>(status.st_size) : 0;
  return ReadToEnd(fd.get(), size, buffer, path);
}

}  // namespace tool
