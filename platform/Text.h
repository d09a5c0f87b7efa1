// Texts of failures and messages.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>

// A text, or an integer in decimal. Refers to the text.
struct TextPiece {
  template <class Value>
  // NOLINTNEXTLINE(google-explicit-constructor): stands for the value
  TextPiece(const Value& value) {
    if constexpr (std::is_integral_v<Value>) {
      number = static_cast<std::int64_t>(value);
      isNumber = true;
    } else {
      text = value;
    }
  }

  std::string_view text;
  std::int64_t number = 0;
  bool isNumber = false;
};

// Not inlined: texts are put together in many places and seldom.
[[gnu::noinline]] inline std::string Join(std::initializer_list<TextPiece> pieces) {
  std::string text;
  for (const TextPiece& piece : pieces) {
    if (piece.isNumber) {
      text += std::to_string(piece.number);
    } else {
      text += piece.text;
    }
  }
  return text;
}

// Puts a text together from pieces.
template <class... Pieces>
std::string Text(const Pieces&... pieces) {
  return Join({TextPiece(pieces)...});
}
