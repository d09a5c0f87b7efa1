#include "tools/Hash.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace tool {
namespace {

constexpr std::string_view kDigits = "0123456789abcdef";

// -1 for what is no hexadecimal digit. Knows no locale.
int ValueOf(char digit) {
  if (digit >= 'A' && digit <= 'F') digit = static_cast<char>(digit - 'A' + 'a');
  const size_t value = kDigits.find(digit);
  return value == std::string_view::npos ? -1 : static_cast<int>(value);
}

}  // namespace

std::optional<Hash> Hash::Parse(std::string_view text) {
  if (text.size() != kHashTextSize) return std::nullopt;
  Hash hash;
  for (size_t i = 0; i < hash.bytes.size(); ++i) {
    const int high = ValueOf(text[2 * i]);
    const int low = ValueOf(text[2 * i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    hash.bytes[i] = static_cast<unsigned char>(high * 16 + low);
  }
  return hash;
}

std::string Hash::Text() const {
  return fmt::format("{:02x}", fmt::join(bytes, ""));
}

}  // namespace tool
