#include "tools/view/SalvageFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "md5/MD5.h"
#include "tools/base/Error.h"

namespace tool {
namespace {

constexpr size_t kWindowSize = size_t{256} * 1024;
constexpr size_t kBlockSize = 4096;  // what a failing disk loses at a time

}  // namespace

void Add(Ranges& ranges, uint64_t begin, uint64_t end) {
  auto next = ranges.upper_bound(begin);
  if (next != ranges.begin() && std::prev(next)->second >= begin) begin = (--next)->first;
  while (next != ranges.end() && next->first <= end) {
    end = std::max(end, next->second);
    next = ranges.erase(next);
  }
  ranges.emplace_hint(next, begin, end);
}

bool Contains(const Ranges& ranges, uint64_t at) {
  const auto next = ranges.upper_bound(at);
  return next != ranges.begin() && std::prev(next)->second > at;
}

Ranges Gaps(const Ranges& ranges, uint64_t begin, uint64_t end) {
  Ranges gaps;
  for (const auto& [from, to] : ranges) {
    if (from > begin && begin < end) gaps[begin] = std::min(from, end);
    begin = std::max(begin, to);
  }
  if (begin < end) gaps[begin] = end;
  return gaps;
}

SalvageFile::SalvageFile(const std::string& path)
    : fd_(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
  struct stat status = {};
  if (!fd_.valid() || ::fstat(fd_.get(), &status) != 0) ThrowErrno("read " + path);
  if (!S_ISREG(status.st_mode)) throw Fault("cannot read {}: not a regular file", path);
  size_ = static_cast<uint64_t>(status.st_size);
}

void SalvageFile::Read(uint64_t offset, unsigned char* to, size_t size) {
  if (size == 0) return;  // `to` may be null
  const auto held = Held(offset);
  if (held.size() >= size)
    std::copy_n(held.begin(), size, to);
  else
    ReadFromDisk(offset, to, size);
}

// After a failure, block by block. A block that failed once is not tried again: each attempt can
// cost a failing disk seconds.
void SalvageFile::ReadFromDisk(uint64_t offset, unsigned char* to, size_t size) {
  const uint64_t end = std::min(offset + size, std::max(offset, size_));
  std::memset(to + (end - offset), 0, offset + size - end);
  bool isWhole = unreadable_.empty();
  while (offset < end) {
    const uint64_t blockEnd = std::min(offset - offset % kBlockSize + kBlockSize, size_);
    size_t part = (isWhole ? end : std::min(end, blockEnd)) - offset;
    const ssize_t got = Contains(unreadable_, offset)
                            ? 0
                            : ::pread(fd_.get(), to, part, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got > 0) {
      part = static_cast<size_t>(got);
    } else if (std::exchange(isWhole, false)) {
      continue;
    } else {
      std::memset(to, 0, part);
      Add(unreadable_, offset, blockEnd);
    }
    offset += part;
    to += part;
  }
}

std::span<const unsigned char> SalvageFile::Held(uint64_t offset) const {
  if (offset < windowBegin_ || offset - windowBegin_ >= window_.size()) return {};
  return std::span(window_).subspan(offset - windowBegin_);
}

std::span<const unsigned char> SalvageFile::From(uint64_t offset, uint64_t least) {
  if (Held(offset).size() < std::min(least, size_ - offset)) {
    windowBegin_ = offset - offset % kBlockSize;
    window_.resize(std::min<uint64_t>(kWindowSize, size_ - windowBegin_));
    ReadFromDisk(windowBegin_, window_.data(), window_.size());
  }
  return Held(offset);
}

blobring::Hash SalvageFile::Digest(uint64_t offset, uint64_t size) {
  MD5 md5;
  for (const uint64_t end = offset + size; offset < end;) {
    const auto window = From(offset, 1);
    const auto part = static_cast<uint32_t>(std::min<uint64_t>(end - offset, window.size()));
    md5.update(window.data(), part);
    offset += part;
  }
  md5.finalize();
  blobring::Hash hash;
  md5.raw_digest(hash.data());
  return hash;
}

}  // namespace tool
