// The layout file of a store: which slots it has. Text in, directories out; no file is touched
// here. The tool compiles this file in as well.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace layout {

// "blobring.conf" in the store's directory: a line "blobring 1", then for each slot in its order a
// line "slot DIR" with the directory of its pack, absolute, or "." for the store's own. Empty lines
// and lines that begin with '#' count for nothing.
constexpr const char* kFileName = "blobring.conf";
constexpr const char* kFirstLine = "blobring 1";
constexpr std::string_view kSlotWord = "slot ";
constexpr const char* kOwnDirectory = ".";

// A slot takes two open files.
constexpr unsigned kMaxSlots = 1000;

// Returns the directories as the text has them, at least one. Throws a Failure that names path and
// the line for any other text.
std::vector<std::string> Parse(const std::string& path, std::string_view text);

}  // namespace layout
