// "blobring.conf" in a store's directory, which says what slots the store has: a line "blobring 1",
// then for each slot in its order a line "slot DIR" with the directory of its pack, absolute, or
// "." for the store's own. Empty lines and lines that begin with '#' count for nothing.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace format {

constexpr unsigned kMaxSlots = 1000;  // each takes two open files
constexpr unsigned kDefaultSlots = 2;

struct Conf {
  static constexpr const char* kFileName = "blobring.conf";
  static constexpr const char* kOwnDirectory = ".";

  // The text of the file at `path`, which the error names.
  static Conf Parse(const std::string& path, std::string_view text);

  std::string Text() const;

  std::vector<std::string> packDirs;  // as the text has them, at least one
  std::string error = {};             // why it is not understood, or nothing
};

}  // namespace format
