#include "tools/view/SalvageFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/base/Error.h"

namespace tool {
namespace {

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

SalvageFile::Opened::Opened(const std::string& path)
    : fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
  struct stat status = {};
  if (!fd.valid() || ::fstat(fd.get(), &status) != 0) ThrowErrno("read " + path);
  if (!S_ISREG(status.st_mode)) throw Fault("cannot read {}: not a regular file", path);
  size = static_cast<uint64_t>(status.st_size);
}

SalvageFile::SalvageFile(Opened opened)
    : ByteSource(opened.size, kBlockSize), fd_(std::move(opened.fd)) {}

std::span<unsigned char> SalvageFile::Allocate(size_t size) {
  window_.resize(size);
  return window_;
}

// After a failure, block by block. A block that failed once is not tried again: each attempt can
// cost a failing disk seconds.
void SalvageFile::ReadFile(uint64_t offset, unsigned char* to, size_t size) {
  const uint64_t end = std::min(offset + size, std::max(offset, Length()));
  std::memset(to + (end - offset), 0, offset + size - end);
  bool isWhole = unreadable_.empty();
  while (offset < end) {
    const uint64_t blockEnd = std::min(offset - offset % kBlockSize + kBlockSize, Length());
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

}  // namespace tool
