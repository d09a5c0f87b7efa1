// What the tool was built with to make pages of.
#pragma once

#include <string_view>

namespace tool {

// page.html with fields for fmt::format.
std::string_view PageTemplate();
std::string_view PageStyle();
std::string_view PageScript();
std::string_view ChartLibrary();  // empty if the tool was built without one

}  // namespace tool
