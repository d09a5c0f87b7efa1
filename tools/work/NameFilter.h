// Which files of a tree or manifest are taken.
#pragma once

#include <string>
#include <vector>

namespace tool {

// Patterns of fnmatch(3) in which '*' matches no slash. A pattern without a slash is compared with
// the last part of a name, one with a slash, even just at its beginning, with the whole name. A
// slash at the end is ignored. A pattern that matches a directory matches all that lies in it.
struct NameFilter {
  std::vector<std::string> include;  // empty: all
  std::vector<std::string> exclude;  // wins

  bool Matches(const std::string& name) const;
  bool Excludes(const std::string& name) const;  // with all below it, if it is a directory
};

}  // namespace tool
