#include "pack/format/FileNames.h"

#include <algorithm>

namespace format {

namespace {

constexpr std::string_view kPack = ".pak", kJournal = ".jrn", kKept = ".kept-", kNew = ".new";
constexpr std::size_t kMostSlotDigits = 9;

std::size_t CountDigits(std::string_view text) {
  return std::min(text.find_first_not_of("0123456789"), text.size());
}

bool IsSuffix(std::string_view text) {
  if (text.empty() || text == kNew) return true;
  if (!text.starts_with(kKept)) return false;
  text.remove_prefix(kKept.size());
  return !text.empty() && CountDigits(text) == text.size();
}

}  // namespace

std::string PackName(std::uint64_t slot) {
  return std::to_string(slot).append(kPack);
}

std::string JournalName(std::uint64_t slot) {
  return std::to_string(slot).append(kJournal);
}

std::string PackPath(std::string_view directory, std::uint64_t slot) {
  return std::string(directory).append("/").append(PackName(slot));
}

std::string JournalPath(std::string_view directory, std::uint64_t slot) {
  return std::string(directory).append("/").append(JournalName(slot));
}

std::string KeptPath(std::string_view path, unsigned number) {
  return std::string(path).append(kKept).append(std::to_string(number));
}

std::string NewPath(std::string_view path) {
  return std::string(path).append(kNew);
}

std::optional<FileName> FileName::Parse(std::string_view name) {
  const std::size_t digits = CountDigits(name);
  const std::string_view extension = name.substr(digits, kPack.size());
  const bool isNumber = digits == 1 || (digits > 1 && digits <= kMostSlotDigits && name[0] != '0');
  if (!isNumber || (extension != kPack && extension != kJournal)) return std::nullopt;
  const std::string_view suffix = name.substr(digits + extension.size());
  if (!IsSuffix(suffix)) return std::nullopt;
  return FileName{std::stoull(std::string(name.substr(0, digits))), extension == kPack,
                  std::string(suffix)};
}

}  // namespace format
