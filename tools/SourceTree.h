// The regular files of a tree.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tool {

struct SourceTree {
  struct File {
    std::string name;   // below the root, without "./"
    uint64_t size = 0;  // when it was listed, bytes
  };

  std::string root;
  std::vector<File> files;  // in the order of their names' bytes, directory by directory
  uint64_t byteCount = 0;
  uint64_t symbolicLinkCount = 0;  // left out, as are
  uint64_t specialFileCount = 0;   // sockets, pipes and devices, and
  uint64_t storeFileCount = 0;     // files given in `exclude`
  uint64_t unreadableCount = 0;    // directories or files that could not be looked at; each was named

  // Lists the tree below `directory`, which may itself be a symbolic link.
  // `exclude` names files by path; they are recognised under any name. Entries
  // left out are named on standard error when `verbose`. Throws Fault when
  // `directory` cannot be read.
  static SourceTree List(const std::string& directory, const std::vector<std::string>& exclude, bool verbose);

  std::string PathOf(const File& file) const { return root + "/" + file.name; }
};

}  // namespace tool
