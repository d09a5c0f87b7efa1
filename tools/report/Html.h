// Pieces of a page.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace tool {

// As text of an element or an attribute in quotes. Control characters become U+FFFD.
std::string Escaped(std::string_view text);

// "1,234,567"
std::string Grouped(uint64_t number);

// A row of cells, escaped already. Numbers are set to the right.
std::string Row(std::initializer_list<std::string> cells);

// A table that scrolls by itself, also by keyboard. Columns of numbers begin with '#'. Everything
// is escaped already.
std::string Table(std::string_view name, std::string_view caption,
                  std::initializer_list<std::string_view> columns, const std::string& rows);

}  // namespace tool
