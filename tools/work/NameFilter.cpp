#include "tools/work/NameFilter.h"

#include <fnmatch.h>

#include <algorithm>

namespace tool {
namespace {

// Compares the name and each directory above it.
bool Matches(std::string pattern, const std::string& name) {
  if (pattern.size() > 1 && pattern.ends_with('/')) pattern.pop_back();
  const bool isPath = pattern.find('/') != std::string::npos;
  const char* const wanted = pattern.c_str() + (pattern.starts_with('/') ? 1 : 0);
  for (size_t end = name.find('/');; end = name.find('/', end + 1)) {
    const std::string path = name.substr(0, end);
    const std::string part = isPath ? path : path.substr(path.rfind('/') + 1);
    if (::fnmatch(wanted, part.c_str(), FNM_PATHNAME) == 0) return true;
    if (end == std::string::npos) return false;
  }
}

bool AnyMatches(const std::vector<std::string>& patterns, const std::string& name) {
  return std::any_of(patterns.begin(), patterns.end(),
                     [&name](const std::string& pattern) { return Matches(pattern, name); });
}

}  // namespace

bool NameFilter::Excludes(const std::string& name) const {
  return AnyMatches(exclude, name);
}

bool NameFilter::Matches(const std::string& name) const {
  return (include.empty() || AnyMatches(include, name)) && !Excludes(name);
}

}  // namespace tool
