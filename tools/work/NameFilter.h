// Which files of a tree or manifest are taken.
#pragma once

#include <string>
#include <vector>

namespace tool {

// Patterns of fnmatch(3) in which '*' matches no slash. A pattern without a slash is compared with
// the last part of a name, one with a slash with the whole name; a slash
// at its end means nothing, one at its beginning no more than that. A pattern that matches a
// directory is for all that lies in it.
struct NameFilter {
  std::vector<std::string> include;  // empty: all
  std::vector<std::string> exclude;  // wins

  bool Takes(const std::string& name) const;
  bool Excludes(const std::string& name) const;  // with all below it, if it is a directory
};

}  // namespace tool
