// Little-endian numbers in byte strings, and the one way in which a fuzz
// target reports a finding.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace fuzz {

inline std::uint32_t Get32(std::string_view bytes, std::size_t at) {
  std::uint32_t value = 0;
  for (std::size_t i = 4; i-- > 0;) value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
  return value;
}

inline void Put32(std::string& bytes, std::size_t at, std::uint32_t value) {
  for (std::size_t i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>(value >> (8 * i));
}

inline std::string_view View(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// Ends the program, after the trace of the store, unless it holds.
void Require(bool holds, const char* what);

}  // namespace fuzz
