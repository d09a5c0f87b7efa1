// The key of a blob: the 16 bytes of its MD5 digest, in the digest's order.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "platform/Export.h"

class MD5;

class BLOBRING_EXPORT Hash {
 public:
  static constexpr std::size_t kSize = 16;

  Hash();
  Hash(const Hash& other) = default;
  Hash& operator=(const Hash& other) = default;

  // Takes over 16 bytes as they lie.
  void setHash(unsigned char* source);

  // Bytewise, unsigned, the first byte counting most: the order of the index. Inline because every
  // look-up compares some 20 times; exported all the same.
  BLOBRING_EXPORT __attribute__((used)) bool operator<(const Hash& other) const {
    const std::uint64_t a = Word(0);
    const std::uint64_t b = other.Word(0);
    return a != b ? a < b : Word(8) < other.Word(8);
  }
  friend bool operator==(const Hash& a, const Hash& b) {
    return std::memcmp(a.bytes, b.bytes, kSize) == 0;
  }

  // Each byte in lower-case hexadecimal without leading zero: 16 to 32 characters, for messages.
  std::string toString() const;

  const unsigned char* Bytes() const { return bytes; }
  // The first 8 bytes as a number that is ordered as they are.
  std::uint64_t Prefix() const { return Word(0); }

 private:
  std::uint64_t Word(std::size_t at) const {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes + at, sizeof word);
    if constexpr (std::endian::native == std::endian::little) word = __builtin_bswap64(word);
    return word;
  }

  unsigned char bytes[kSize];
};

// Ends the message and returns its digest.
Hash Finish(MD5& md5);
