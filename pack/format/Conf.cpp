#include "pack/format/Conf.h"

namespace format {

namespace {

constexpr std::string_view kFirstLine = "blobring 1";
constexpr std::string_view kSlotWord = "slot ";
constexpr std::string_view kRemark =
    "# The slots of this store, in their order: slot k has its pack k.pak in the directory named "
    "and its\n"
    "# journal k.jrn here. Other slots, or another order, would hide what is stored.\n";

std::string Joined(std::initializer_list<std::string_view> pieces) {
  std::string text;
  for (const std::string_view piece : pieces) text += piece;
  return text;
}

}  // namespace

Conf Conf::Parse(const std::string& path, std::string_view text) {
  Conf conf;
  bool isFirst = true;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(line.size() < text.size() ? line.size() + 1 : line.size());
    if (line.empty() || line.front() == '#') continue;
    const std::string_view dir =
        line.starts_with(kSlotWord) ? line.substr(kSlotWord.size()) : std::string_view();
    const bool isSlot = dir == kOwnDirectory || dir.starts_with('/');
    if (isFirst ? line != kFirstLine : !isSlot) {
      const std::string wanted = isFirst ? Joined({"\"", kFirstLine, "\""})
                                         : "\"slot .\" or \"slot \" and an absolute directory";
      conf.error = Joined(
          {path, " line ", std::to_string(number), ": wanted ", wanted, ", found \"", line, "\""});
      return conf;
    }
    if (!isFirst) conf.packDirs.emplace_back(dir);
    isFirst = false;
  }
  if (conf.packDirs.empty()) conf.error = path + " names no slot";
  if (conf.packDirs.size() > kMaxSlots)
    conf.error = Joined({path, " names ", std::to_string(conf.packDirs.size()),
                         " slots, a store has at most ", std::to_string(kMaxSlots)});
  return conf;
}

std::string Conf::Text() const {
  std::string text = Joined({kRemark, kFirstLine, "\n"});
  for (const std::string& dir : packDirs) text += Joined({kSlotWord, dir, "\n"});
  return text;
}

}  // namespace format
