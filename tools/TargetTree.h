// Files written below one directory and nowhere else.
#pragma once

#include <string>
#include <string_view>

#include "tools/Fd.h"
#include "tools/StagedFile.h"

namespace tool {

class TargetTree {
 public:
  // Whether a name stays below the directory it is taken from: relative, no
  // "..", not the directory itself. "./" and "//" mean nothing, as in open(2).
  static bool IsSafeName(std::string_view name);

  // Creates the directory if it does not exist. Throws Fault.
  explicit TargetTree(const std::string& directory);

  // Writes a file whole or not at all, with the directories that its name
  // needs. No symbolic link below the root is followed on the way, so that
  // none can lead out of it. Throws Fault.
  void Write(const std::string& name, Bytes data, Existing existing);

  // Makes everything written survive a power cut. Throws Fault.
  void Sync();

 private:
  // The directory at `name` below the root, made if need be, open until the
  // next call; files come sorted, so the last one is mostly the right one.
  int OpenParent(const std::string& name);

  std::string root_;
  Fd rootFd_;
  std::string parentName_;
  Fd parentFd_;
};

}  // namespace tool
