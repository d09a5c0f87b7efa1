#include "tools/remote/Spool.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

#include "tools/base/Error.h"

namespace tool::remote {
namespace {

constexpr uint64_t kMostInMemory = uint64_t{192} << 20;
std::atomic<uint64_t> inMemory = 0;  // bytes that are reserved

}  // namespace

Spool::Spool(uint64_t maxSize) {
  if (maxSize != 0 && inMemory.fetch_add(maxSize) + maxSize <= kMostInMemory) {
    reserved_ = maxSize;
    memory_.reserve(maxSize);
    return;
  }
  inMemory -= maxSize;
  const char* directory = std::getenv("TMPDIR");
  std::string path =
      std::string(directory != nullptr ? directory : "/var/tmp") + "/blobring-XXXXXX";
  file_ = Fd(::mkostemp(path.data(), O_CLOEXEC));
  if (!file_.valid()) ThrowErrno("create a temporary file in " + path);
  ::unlink(path.c_str());
}

Spool::~Spool() {
  inMemory -= reserved_;
}

void Spool::Append(std::string_view data) {
  WriteAt(size_, data);
  size_ += data.size();
}

void Spool::WriteAt(uint64_t offset, std::string_view data) {
  if (!file_.valid()) {
    memory_.replace(offset, data.size(), data);
    return;
  }
  while (!data.empty()) {
    const ssize_t n = ::pwrite(file_.get(), data.data(), data.size(), static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) ThrowErrno("write a temporary file");
    data.remove_prefix(static_cast<size_t>(n));
    offset += static_cast<uint64_t>(n);
  }
}

void Spool::Clear() {
  if (file_.valid() && ::ftruncate(file_.get(), 0) != 0) ThrowErrno("cut a temporary file");
  memory_.clear();
  size_ = 0;
}

size_t Spool::Read(uint64_t offset, char* out, size_t size) const {
  if (!file_.valid()) return std::string_view(memory_).copy(out, size, offset);
  size_t done = 0;
  while (done < size) {
    const ssize_t n =
        ::pread(file_.get(), out + done, size - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ThrowErrno("read a temporary file");
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return done;
}

Spool::Bytes Spool::Map() const {
  if (!file_.valid() || size_ == 0) return {memory_};
  const size_t size = size_;
  void* const at = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, file_.get(), 0);
  if (at == MAP_FAILED) ThrowErrno("map a temporary file");
  return {{static_cast<const char*>(at), size},
          {at, [size](void* mapped) { ::munmap(mapped, size); }}};
}

}  // namespace tool::remote
