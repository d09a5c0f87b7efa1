// The regular files of a tree.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "tools/Fd.h"

namespace tool {

struct SourceTree {
  struct File {
    std::string name;   // below the root, without "./"
    uint64_t size = 0;  // when it was listed, bytes
  };

  std::string root;
  std::vector<File> files;  // in the order of their names' bytes, component by component
  uint64_t byteCount = 0;
  uint64_t symbolicLinkCount = 0;  // left out
  uint64_t specialFileCount = 0;   // left out: sockets, pipes and devices
  uint64_t excludedCount = 0;      // left out: files of `exclude`
  uint64_t unreadableCount =
      0;  // files and directories that lstat(2) or opendir(3) failed on; each was named

  // Lists the tree below `directory`, which may itself be a symbolic link.
  // Entries left out are named on standard error if `verbose`. Throws Fault
  // when `directory` cannot be read.
  static SourceTree List(const std::string& directory, const std::set<FileId>& exclude,
                         bool verbose);

  std::string PathOf(const File& file) const { return root + "/" + file.name; }
};

}  // namespace tool
