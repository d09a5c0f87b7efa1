#include "tools/report/Html.h"

#include <fmt/format.h>

namespace tool {

std::string Escaped(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&#39;";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
          escaped += "\xEF\xBF\xBD";
        else
          escaped += c;
    }
  }
  return escaped;
}

std::string Grouped(uint64_t number) {
  std::string digits = std::to_string(number);
  for (size_t at = digits.size(); at > 3;) digits.insert(at -= 3, ",");
  return digits;
}

std::string Row(std::initializer_list<std::string> cells) {
  std::string row = "<tr>";
  for (const std::string& cell : cells) {
    const bool isNumber = !cell.empty() && cell.find_first_not_of("-0123456789,") == cell.npos;
    row += (isNumber ? "<td class=\"n\">" : "<td>") + cell;
  }
  return row + '\n';
}

std::string Table(std::string_view name, std::string_view caption,
                  std::initializer_list<std::string_view> columns, const std::string& rows) {
  std::string heads;
  for (const std::string_view column : columns) {
    const bool isNumber = column.starts_with('#');
    heads += fmt::format("<th scope=\"col\"{}>{}", isNumber ? " class=\"n\"" : "",
                         column.substr(isNumber ? 1 : 0));
  }
  return fmt::format(
      "<div class=\"scroll\" tabindex=\"0\" role=\"region\" aria-label=\"{1}\">"
      "<table "
      "class=\"{0}\"><caption>{1}</caption><thead><tr>{2}</thead><tbody>\n{3}</tbody></table>"
      "</div>\n",
      name, caption, heads, rows);
}

}  // namespace tool
