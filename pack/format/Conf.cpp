#include "pack/format/Conf.h"

namespace format {

namespace {

constexpr std::string_view kFirstLine = "blobring 1";
constexpr const char* kWantedFirst = "\"blobring 1\"";
constexpr const char* kWantedSlot = "\"slot .\" or \"slot \" and an absolute directory";
constexpr std::string_view kSlotWord = "slot ";
constexpr std::string_view kRemark =
    "# The slots of this store, in their order: slot k has its pack k.pak in the directory named "
    "and its\n"
    "# journal k.jrn here. Other slots, or another order, would hide what is stored.\n";

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
      conf.error = path + " line " + std::to_string(number) + ": wanted " +
                   (isFirst ? kWantedFirst : kWantedSlot) + ", found \"" + std::string(line) + "\"";
      return conf;
    }
    if (!isFirst) conf.packDirs.emplace_back(dir);
    isFirst = false;
  }
  if (conf.packDirs.empty()) conf.error = path + " names no slot";
  if (conf.packDirs.size() > kMaxSlots)
    conf.error = path + " names " + std::to_string(conf.packDirs.size()) +
                 " slots, a store has at most " + std::to_string(kMaxSlots);
  return conf;
}

std::string Conf::Text() const {
  std::string text = std::string(kRemark).append(kFirstLine).append("\n");
  for (const std::string& dir : packDirs) text.append(kSlotWord).append(dir).append("\n");
  return text;
}

}  // namespace format
