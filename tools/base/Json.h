// Results as JSON lines.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace tool {

// Keys stay in the order in which they were added; the first one is "type".
using Json = nlohmann::ordered_json;

// One line, with its newline. Bytes that are not UTF-8 become U+FFFD.
std::string JsonLine(const Json& object);

// Prints the object with --json, and nothing without it. REQUIRES: no store is open.
void PrintObject(const Json& object);

}  // namespace tool
