#include "tools/base/DirectoryTree.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "tools/base/Error.h"

namespace tool {

DirectoryTree::DirectoryTree(std::string root)
    : root_(std::move(root)), rootFd_(OpenDirectory(root_)) {}

int DirectoryTree::OpenParent(const std::string& name, Missing missing) {
  if (name.empty()) return rootFd_.get();
  if (parentFd_.valid() && name == parentName_) return parentFd_.get();
  parentFd_ = Fd();
  Fd at;
  for (const std::filesystem::path& part : std::filesystem::path(name)) {
    const int above = at.valid() ? at.get() : rootFd_.get();
    if (missing == Missing::kCreate && ::mkdirat(above, part.c_str(), 0777) != 0 && errno != EEXIST)
      ThrowErrno(fmt::format("make the directory {}/{}", root_, name));
    Fd next(::openat(above, part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!next.valid() && (errno == ELOOP || errno == ENOTDIR))
      throw Fault("cannot use {}/{}: {} is there and is not a directory", root_, name,
                  part.string());
    if (!next.valid()) ThrowErrno(fmt::format("open the directory {}/{}", root_, name));
    at = std::move(next);
  }
  parentName_ = name;
  parentFd_ = std::move(at);
  return parentFd_.get();
}

}  // namespace tool
