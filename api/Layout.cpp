#include "api/Layout.h"

#include "platform/Failure.h"

namespace layout {

std::vector<std::string> Parse(const std::string& path, std::string_view text) {
  std::vector<std::string> packDirs;
  bool isFirst = true;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(line.size() < text.size() ? line.size() + 1 : line.size());
    if (line.empty() || line.front() == '#') continue;
    const auto require = [&](bool isRight, const std::string& wanted) {
      if (!isRight)
        throw Failure(FailureCode::Damaged, path, " line ", number, ": wanted ", wanted,
                      ", found \"", line, "\"");
    };
    if (isFirst) {
      require(line == kFirstLine, Text("\"", kFirstLine, "\""));
      isFirst = false;
      continue;
    }
    const std::string_view dir =
        line.starts_with(kSlotWord) ? line.substr(kSlotWord.size()) : std::string_view();
    require(dir == kOwnDirectory || dir.starts_with('/'),
            "\"slot .\" or \"slot \" and an absolute directory");
    packDirs.emplace_back(dir);
  }
  if (packDirs.empty()) throw Failure(FailureCode::Damaged, path, " names no slot");
  if (packDirs.size() > kMaxSlots)
    throw Failure(FailureCode::Damaged, path, " names ", packDirs.size(),
                  " slots, a store has at most ", kMaxSlots);
  return packDirs;
}

}  // namespace layout
