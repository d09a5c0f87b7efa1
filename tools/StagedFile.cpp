#include "tools/StagedFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "tools/Error.h"

namespace tool {

StagedFile::StagedFile(int directory, std::string name, std::string shownName)
    : directory_(directory), name_(std::move(name)), shownName_(std::move(shownName)) {
  static unsigned serial = 0;
  do {
    temporaryName_ = fmt::format(".blobring-{}-{}.tmp", ::getpid(), serial++);
    file_ = Fd(::openat(directory_, temporaryName_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  } while (!file_.valid() && errno == EEXIST);
  if (!file_.valid()) ThrowErrno("write " + shownName_);
}

StagedFile::~StagedFile() {
  if (!published_) ::unlinkat(directory_, temporaryName_.c_str(), 0);
}

void StagedFile::Sync() {
  if (::fsync(file_.get()) != 0) ThrowErrno("write " + shownName_);
  synced_ = true;
}

int StagedFile::Rename(Existing existing) const {
  if (existing == Existing::kKeep) {
    if (::renameat2(directory_, temporaryName_.c_str(), directory_, name_.c_str(), RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return errno;
    // A file system without that flag: look first, which leaves a moment
    // between the look and the rename.
    struct stat status = {};
    if (::fstatat(directory_, name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) return EEXIST;
  }
  return ::renameat(directory_, temporaryName_.c_str(), directory_, name_.c_str()) == 0 ? 0 : errno;
}

void StagedFile::Publish(Existing existing) {
  errno = Rename(existing);
  if (errno == EEXIST && existing == Existing::kKeep) throw Fault(fmt::format("{} exists and was kept", shownName_));
  if (errno != 0) ThrowErrno("write " + shownName_);
  published_ = true;
  if (synced_ && ::fsync(directory_) != 0) ThrowErrno("write " + shownName_);
}

SplitPath::SplitPath(const std::string& path) {
  const size_t slash = path.rfind('/');
  name = slash == std::string::npos ? path : path.substr(slash + 1);
  directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

}  // namespace tool
