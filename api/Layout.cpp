#include "api/Layout.h"

#include <stdexcept>

namespace layout {

namespace {

[[noreturn]] void ThrowAt(const std::string& path, std::size_t line, const std::string& wanted,
                          std::string_view found) {
  throw std::runtime_error(path + " line " + std::to_string(line) + ": wanted " + wanted +
                           ", found \"" + std::string(found) + "\"");
}

}  // namespace

std::vector<std::string> Parse(const std::string& path, std::string_view text) {
  std::vector<std::string> packDirs;
  bool isFirst = true;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(line.size() < text.size() ? line.size() + 1 : line.size());
    if (line.empty() || line.front() == '#') continue;
    if (isFirst) {
      if (line != kFirstLine) ThrowAt(path, number, '"' + std::string(kFirstLine) + '"', line);
      isFirst = false;
      continue;
    }
    const std::string dir(
        line.starts_with(kSlotWord) ? line.substr(std::string_view(kSlotWord).size()) : "");
    if (dir != kOwnDirectory && !dir.starts_with('/'))
      ThrowAt(path, number, "\"slot .\" or \"slot \" and an absolute directory", line);
    packDirs.push_back(dir);
  }
  if (packDirs.empty()) throw std::runtime_error(path + " names no slot");
  if (packDirs.size() > kMaxSlots)
    throw std::runtime_error(path + " names " + std::to_string(packDirs.size()) +
                             " slots, a store has at most " + std::to_string(kMaxSlots));
  return packDirs;
}

}  // namespace layout
