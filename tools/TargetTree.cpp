#include "tools/TargetTree.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <vector>

#include "tools/Error.h"

namespace tool {
namespace {

std::vector<std::string> Components(std::string_view name) {
  std::vector<std::string> parts;
  while (!name.empty()) {
    const std::string_view part = name.substr(0, name.find('/'));
    name.remove_prefix(std::min(part.size() + 1, name.size()));
    if (!part.empty() && part != ".") parts.emplace_back(part);
  }
  return parts;
}

}  // namespace

bool TargetTree::IsSafeName(std::string_view name) {
  if (name.starts_with('/') || name.ends_with('/')) return false;
  const std::vector<std::string> parts = Components(name);
  return !parts.empty() && !name.ends_with("/.") &&
         std::find(parts.begin(), parts.end(), "..") == parts.end();
}

TargetTree::TargetTree(const std::string& directory) : root_(directory) {
  std::error_code code;
  std::filesystem::create_directories(directory, code);
  rootFd_ = OpenDirectory(directory);
}

int TargetTree::OpenParent(const std::string& name) {
  if (name.empty()) return rootFd_.get();
  if (parentFd_.valid() && name == parentName_) return parentFd_.get();
  parentFd_ = Fd();
  Fd at;
  for (const std::string& part : Components(name)) {
    const int above = at.valid() ? at.get() : rootFd_.get();
    const bool made = ::mkdirat(above, part.c_str(), 0777) == 0;
    if (!made && errno != EEXIST) ThrowErrno(fmt::format("make the directory {}/{}", root_, name));
    Fd next(::openat(above, part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!next.valid() && (errno == ELOOP || errno == ENOTDIR))
      throw Fault(
          fmt::format("cannot use {}/{}: {} is there and is no directory", root_, name, part));
    if (!next.valid()) ThrowErrno(fmt::format("open the directory {}/{}", root_, name));
    at = std::move(next);
  }
  parentName_ = name;
  parentFd_ = std::move(at);
  return parentFd_.get();
}

void TargetTree::Write(const std::string& name, Bytes data, Existing existing) {
  std::vector<std::string> parts = Components(name);
  const std::string last = parts.back();
  parts.pop_back();
  std::string parent;
  for (const std::string& part : parts) parent += (parent.empty() ? "" : "/") + part;
  StagedFile file(OpenParent(parent), last,
                  fmt::format("{}/{}{}{}", root_, parent, parent.empty() ? "" : "/", last));
  file.Write(data);
  file.Publish(existing);
}

void TargetTree::Sync() {
  if (::syncfs(rootFd_.get()) != 0) ThrowErrno("flush " + root_);
}

}  // namespace tool
