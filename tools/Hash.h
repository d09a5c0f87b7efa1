// The key of a blob, as the tool reads and prints it.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "blobring/blobring.h"

namespace tool {

constexpr size_t kHashTextSize = size_t{2} * BLOBRING_HASH_SIZE;

// The MD5 digest (RFC 1321) of a blob's bytes.
struct Hash {
  std::array<unsigned char, BLOBRING_HASH_SIZE> bytes = {};

  // Reads 32 hexadecimal digits of either case, and nothing else.
  static std::optional<Hash> Parse(std::string_view text);

  // 32 lower-case hexadecimal digits.
  std::string Text() const;

  bool operator<(const Hash& other) const { return bytes < other.bytes; }
};

}  // namespace tool
