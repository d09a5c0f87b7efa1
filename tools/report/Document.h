// What a report says, as JSON lines; docs/json.md has their keys. A page is made from this alone,
// on this machine or another.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/base/Json.h"

namespace tool {

// "report" is the first object; "stat" and "check" are there once each, and "file" objects before
// those that name their paths.
using Document = std::vector<Json>;

// From a file, or standard input for "-". Throws UsageError that names the line if this is not what
// `report --json` writes; Fault if the file cannot be read.
Document ReadDocument(const std::string& path);

// The first object of a type. REQUIRES: there is one.
const Json& ObjectOf(const Document& document, std::string_view type);

}  // namespace tool
