// Texts of failures and messages.
#pragma once

#include <string>
#include <string_view>
#include <type_traits>

// Puts a text together from pieces: texts, and integers in decimal.
template <class... Pieces>
std::string Text(const Pieces&... pieces) {
  [[maybe_unused]] const auto print = [](const auto& piece) {
    if constexpr (std::is_integral_v<std::decay_t<decltype(piece)>>) {
      return std::to_string(piece);
    } else {
      return std::string_view(piece);
    }
  };
  std::string text;
  (text.append(print(pieces)), ...);
  return text;
}
