// Descriptors, and files read and written whole.
#pragma once

#include <fmt/format.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "blobring/Hash.h"
#include "pack/format/Format.h"

namespace tool {

// 2,147,483,531 bytes: alone in a file, in a transaction of its own.
constexpr uint64_t kMaxBlobSize = format::kMaxFileSize - format::kFileHeaderSize -
                                  format::kStartSize - format::kStoreHeaderSize - format::kEndSize;

// Owns a descriptor; -1 owns nothing.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Fd();

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

 private:
  int fd_;
};

// The same for all names of a file.
using FileId = std::pair<dev_t, ino_t>;
std::optional<FileId> IdOf(int fd);
std::optional<FileId> IdOf(const std::string& path);  // follows symbolic links

// Throws Fault("cannot <action>: <text of errno>").
[[noreturn]] void ThrowErrno(const std::string& action);

// Creates a directory with its parents. A power cut must not take their names, with all that lies
// in them, so the directories that hold them are flushed.
void MakeDirectory(const std::string& path);

// Of what this process creates from now on, group and others get no rights if the file gives them
// none to read it.
void CreateAsClosedAs(const std::string& path);

// Opens a directory. Throws Fault.
Fd OpenDirectory(const std::string& path);

// Writes all of data, however many calls that takes. Messages call the file `name`. Throws Fault.
void WriteAll(int fd, std::string_view data, const std::string& name);

// Writes lines to standard output, printable ones if that is a terminal. Throws Fault.
void PrintText(std::string_view lines);

// Text that is put together is printed once it has grown this long, so that memory stays small.
constexpr size_t kPrintAt = size_t{1024} * 1024;

template <class... T>
void Print(fmt::format_string<T...> lines, T&&... values) {
  PrintText(fmt::format(lines, std::forward<T>(values)...));
}

// Memory for one file or blob after another. It grows and never shrinks; what lies past the bytes
// last written is undefined.
using Buffer = std::vector<char>;

// Makes the buffer at least `size` bytes long, keeping what is there. Throws Fault when memory is
// short; the old contents stay.
void Grow(Buffer& buffer, size_t size);

struct SourceFile {
  std::string_view bytes;  // in the buffer, until its next use
  bool changed = false;    // while it was read, three times in a row
};

// Reads a regular file whole; a file that changes meanwhile is read again. The contents are copied,
// never mapped: the bytes that are hashed must be the bytes that are stored, and a file cut short
// under a mapping kills the process. Throws Fault: no such file, not readable, larger than a blob
// can be, not a regular file (symbolic links are not followed).
SourceFile ReadRegularFile(const std::string& path, Buffer& buffer);
// The file of an open directory. Messages call it `path`.
SourceFile ReadRegularFile(int directory, const std::string& name, const std::string& path,
                           Buffer& buffer);

// Reads a file of any kind to its end; "-" is standard input. Throws Fault as above. May wait for a
// writer, unless the file is a regular one.
std::string_view ReadStream(const std::string& path, Buffer& buffer);

// What is larger is handled in pieces, so that memory does not grow with files and blobs.
constexpr uint64_t kLargeSize = uint64_t{4} * 1024 * 1024;

// Bytes that need not fit into memory, and what messages call them.
struct LargeItem {
  blobring::Hash hash;
  uint64_t size = 0;
  // Reads from an offset on, and returns how many bytes, fewer than there is room for only at the
  // end. Throws Fault, and Interrupted.
  std::function<size_t(uint64_t offset, std::span<std::byte> room)> readAt;
  std::string name;
};

// Opens and digests a regular file of an open directory, or of none (AT_FDCWD). It stays open, and
// may change: its bytes then no longer match the hash. Throws as ReadRegularFile does, and
// Interrupted. Messages call it `path`.
LargeItem DigestFile(int directory, const std::string& name, const std::string& path);

// The same of a file larger than kLargeSize, also behind a symbolic link; nothing for any other,
// and for one that cannot be read.
std::optional<LargeItem> DigestLarge(const std::string& path);

}  // namespace tool
