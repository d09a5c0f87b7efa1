#include "tools/remote/Spool.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "md5/MD5.h"
#include "tools/base/Error.h"

namespace tool::remote {
namespace {

constexpr size_t kCopied = size_t{1} << 20;

}  // namespace

Spool::Spool() {
  const char* directory = std::getenv("TMPDIR");
  std::string path =
      std::string(directory != nullptr ? directory : "/var/tmp") + "/blobring-XXXXXX";
  file_ = Fd(::mkostemp(path.data(), O_CLOEXEC));
  if (!file_.valid()) ThrowErrno("create a temporary file in " + path);
  ::unlink(path.c_str());
}

void Spool::Append(std::string_view data) {
  WriteAt(size_, data);
  size_ += data.size();
}

void Spool::WriteAt(uint64_t offset, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = ::pwrite(file_.get(), data.data(), data.size(), static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) ThrowErrno("write a temporary file");
    data.remove_prefix(static_cast<size_t>(n));
    offset += static_cast<uint64_t>(n);
  }
}

void Spool::Clear() {
  if (::ftruncate(file_.get(), 0) != 0) ThrowErrno("cut a temporary file");
  size_ = 0;
}

size_t Spool::Read(uint64_t offset, char* out, size_t size) const {
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

blobring::Hash Spool::Digest() const {
  MD5 digest;
  Buffer buffer(kCopied);
  for (uint64_t at = 0; at < size_;) {
    const size_t n = Read(at, buffer.data(), buffer.size());
    if (n == 0) throw Fault("a temporary file was cut");
    digest.update(reinterpret_cast<const uint8_t*>(buffer.data()), static_cast<uint32_t>(n));
    at += n;
  }
  digest.finalize();
  blobring::Hash hash;
  digest.raw_digest(hash.data());
  return hash;
}

}  // namespace tool::remote
