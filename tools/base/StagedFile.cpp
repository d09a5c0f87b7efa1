#include "tools/base/StagedFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <random>
#include <regex>
#include <set>
#include <utility>

#include "tools/base/Error.h"

namespace tool {
namespace {

// Removes the temporary files of killed processes, once for each directory. Those of live ones are
// locked.
void RemoveLeftovers(int directory) {
  static std::set<FileId> done;
  const std::optional<FileId> id = IdOf(directory);
  if (!id || !done.insert(*id).second) return;
  DIR* listing = ::fdopendir(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (listing == nullptr) return;
  while (const dirent* entry = ::readdir(listing)) {
    const std::string name = entry->d_name;
    if (IsAbandoned(directory, name)) ::unlinkat(directory, name.c_str(), 0);
  }
  ::closedir(listing);
}

bool IsLinked(int fd) {
  struct stat status = {};
  return ::fstat(fd, &status) == 0 && status.st_nlink != 0;
}

std::string TemporaryName() {
  std::random_device random;
  return fmt::format(".blobring-{:08x}{:08x}{:08x}{:08x}.tmp", random(), random(), random(),
                     random());
}

}  // namespace

bool IsAbandoned(int directory, const std::string& name) {
  static const std::regex kForm(R"(\.blobring-[0-9a-f]{32}\.tmp)");
  if (!std::regex_match(name, kForm)) return false;
  const Fd file(::openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status = {};
  return file.valid() && ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) &&
         ::flock(file.get(), LOCK_EX | LOCK_NB) == 0;
}

StagedFile::StagedFile(int directory, std::string name, std::string shownName)
    : directory_(directory), name_(std::move(name)), shownName_(std::move(shownName)) {
  RemoveLeftovers(directory_);
  // Another process may remove the file before we lock it; then try the next name.
  do {
    temporaryName_ = TemporaryName();
    file_ = Fd(::openat(directory_, temporaryName_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                        0666));
    if (!file_.valid() && errno != EEXIST) ThrowErrno("write " + shownName_);
    if (file_.valid()) ::flock(file_.get(), LOCK_EX | LOCK_NB);
  } while (!file_.valid() || !IsLinked(file_.get()));
  struct stat replaced = {};
  if (::fstatat(directory_, name_.c_str(), &replaced, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISREG(replaced.st_mode))
    ::fchmod(file_.get(), replaced.st_mode & 0777);
}

StagedFile::~StagedFile() {
  if (!published_) ::unlinkat(directory_, temporaryName_.c_str(), 0);
}

void StagedFile::Sync() {
  if (::fsync(file_.get()) != 0) ThrowErrno("write " + shownName_);
  synced_ = true;
}

void StagedFile::Rename(Existing existing) const {
  const auto rename = [this](unsigned flags) {
    return ::renameat2(directory_, temporaryName_.c_str(), directory_, name_.c_str(), flags) == 0;
  };
  if (existing == Existing::kKeep) {
    if (rename(RENAME_NOREPLACE)) return;
    // A file system without that flag: a moment passes between look and rename.
    struct stat status = {};
    const bool lacksFlag = errno == EINVAL || errno == ENOSYS;
    if (lacksFlag && ::fstatat(directory_, name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
      errno = EEXIST;
    if (errno == EEXIST) throw Fault("{} exists and was kept", shownName_);
    if (!lacksFlag) ThrowErrno("write " + shownName_);
  }
  if (!rename(0)) ThrowErrno("write " + shownName_);
}

void StagedFile::Publish(Existing existing) {
  Rename(existing);
  published_ = true;
  if (synced_ && ::fsync(directory_) != 0) ThrowErrno("write " + shownName_);
}

Output::Output(const std::string& path, Existing existing) : path_(path), existing_(existing) {
  isStandardOutput_ = path.empty() || path == "-";
  if (isStandardOutput_) return;
  struct stat status = {};
  if (::lstat(path.c_str(), &status) == 0) {
    const bool isLink = S_ISLNK(status.st_mode);
    const bool isForeign = status.st_uid != 0 && status.st_uid != ::geteuid();
    if (isLink && ::stat(path.c_str(), &status) != 0)
      ThrowErrno("follow the symbolic link " + path);
    // /dev/stdout leads to whatever file that is.
    isStandardOutput_ = isLink && IdOf(path) == IdOf(STDOUT_FILENO);
    if (isStandardOutput_) return;
    if (S_ISDIR(status.st_mode)) throw UsageError("{} is a directory", path);
    if (isLink && (isForeign || S_ISREG(status.st_mode)))
      throw UsageError("{} is a symbolic link; name the file itself", path);
    if (!S_ISREG(status.st_mode)) return;
    if (existing == Existing::kKeep) throw UsageError("{} exists; --force replaces it", path);
  }
  const std::filesystem::path split(path);
  fd_ = OpenDirectory(split.has_parent_path() ? split.parent_path().string() : ".");
  file_.emplace(fd_.get(), split.filename().string(), path);
}

void Output::Write(std::string_view data) {
  if (isStandardOutput_) return WriteAll(STDOUT_FILENO, data, "to standard output");
  if (file_) return file_->Write(data);
  if (!fd_.valid()) fd_ = Fd(::open(path_.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC));
  if (!fd_.valid()) ThrowErrno("write " + path_);
  WriteAll(fd_.get(), data, path_);
}

void Output::Finish() {
  if (!file_) return;
  file_->Sync();
  file_->Publish(existing_);
}

std::optional<FileId> Output::stagedId() const {
  return IdOf(file_ ? file_->fd() : STDOUT_FILENO);
}

}  // namespace tool
