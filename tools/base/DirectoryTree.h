// The files below one directory and nowhere else.
#pragma once

#include <string>

#include "tools/base/Files.h"

namespace tool {

// Opens directories below one that stays open. No symbolic link is followed on the way, so that
// none can lead out of it, even if another process exchanges directories meanwhile.
class DirectoryTree {
 public:
  // Opens the directory, which may itself be a symbolic link. Throws Fault, as all calls do.
  explicit DirectoryTree(std::string root);

  enum class Missing { kFail, kCreate };

  // The directory at `name` below the root, "" for the root; open until the next call. Names mostly
  // come sorted, so the last one is mostly the right one.
  int OpenParent(const std::string& name, Missing missing);

  const std::string& root() const { return root_; }
  int fd() const { return rootFd_.get(); }

 private:
  std::string root_;
  Fd rootFd_;
  std::string parentName_;
  Fd parentFd_;
};

}  // namespace tool
