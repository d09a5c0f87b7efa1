#include "tools/SalvageFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "md5/MD5.h"
#include "tools/Error.h"

namespace tool {
namespace {

constexpr size_t kWindowSize = size_t{1024} * 1024;
constexpr size_t kBlockSize = 4096;  // what a disk that fails loses at a time

// As many bytes as there are, up to size; -1 for an error.
ssize_t ReadAt(int fd, unsigned char* to, size_t size, uint64_t offset) {
  size_t done = 0;
  while (done < size) {
    const ssize_t got = ::pread(fd, to + done, size - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -1;
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

}  // namespace

SalvageFile::SalvageFile(std::string path)
    : path_(std::move(path)), fd_(::open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)), window_(kWindowSize) {
  struct stat status = {};
  if (!fd_.valid() || ::fstat(fd_.get(), &status) != 0) ThrowErrno("read " + path_);
  if (!S_ISREG(status.st_mode)) throw Fault(fmt::format("cannot read {}: it is no regular file", path_));
  size_ = static_cast<uint64_t>(status.st_size);
}

void SalvageFile::NoteUnreadable(uint64_t begin, uint64_t end) {
  for (Range& range : unreadable_) {
    if (begin >= range.begin && end <= range.end) return;
    if (begin == range.end) {
      range.end = end;
      return;
    }
  }
  unreadable_.push_back({begin, end});
}

void SalvageFile::FillWithGaps(size_t wanted) {
  for (size_t at = 0; at < wanted; at += kBlockSize) {
    const size_t size = std::min(kBlockSize, wanted - at);
    const ssize_t got = ReadAt(fd_.get(), window_.data() + at, size, windowBegin_ + at);
    const size_t good = got < 0 ? 0 : static_cast<size_t>(got);
    if (good == size) continue;
    std::memset(window_.data() + at + good, 0, size - good);
    NoteUnreadable(windowBegin_ + at + good, windowBegin_ + at + size);
  }
}

void SalvageFile::Fill(uint64_t offset) {
  windowBegin_ = offset - offset % kBlockSize;
  windowSize_ = static_cast<size_t>(std::min<uint64_t>(kWindowSize, size_ - windowBegin_));
  const ssize_t got = ReadAt(fd_.get(), window_.data(), windowSize_, windowBegin_);
  if (got != static_cast<ssize_t>(windowSize_)) FillWithGaps(windowSize_);
}

Bytes SalvageFile::From(uint64_t offset) {
  if (offset < windowBegin_ || offset - windowBegin_ >= windowSize_) Fill(offset);
  const auto skip = static_cast<size_t>(offset - windowBegin_);
  return {window_.data() + skip, windowSize_ - skip};
}

void SalvageFile::Read(uint64_t offset, unsigned char* to, uint64_t size) {
  while (size > 0) {
    Bytes piece = From(offset);
    if (piece.size() > size) piece = piece.first(static_cast<size_t>(size));
    std::memcpy(to, piece.data(), piece.size());
    to += piece.size();
    offset += piece.size();
    size -= piece.size();
  }
}

Hash SalvageFile::Digest(uint64_t offset, uint64_t size) {
  MD5 md5;
  while (size > 0) {
    Bytes piece = From(offset);
    if (piece.size() > size) piece = piece.first(static_cast<size_t>(size));
    md5.update(piece.data(), static_cast<uint32_t>(piece.size()));
    offset += piece.size();
    size -= piece.size();
  }
  md5.finalize();
  Hash hash;
  md5.raw_digest(hash.data());
  return hash;
}

}  // namespace tool
