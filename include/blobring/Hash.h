// The key of a blob, and what fails, for blobring/Store.h, which includes it.
#ifndef BLOBRING_HASH_H
#define BLOBRING_HASH_H

#include <blobring/blobring.h>

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <limits>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace blobring {

// What failed, and the store's text of the failure, which begins with the cause.
class Error : public std::runtime_error {
 public:
  Error(const std::string& text, int code, int systemError = 0)
      : std::runtime_error(text), code_(code), systemError_(systemError) {}

  // BLOBRING_ERROR_...
  int code() const noexcept { return code_; }
  // As BCLastSystemError; 0 if no call of the system has failed.
  int systemError() const noexcept { return systemError_; }

 private:
  int code_;
  int systemError_;
};

// The key of a blob: the MD5 digest of its contents (RFC 1321). Ordered bytewise, as a store
// enumerates.
class Hash {
 public:
  static constexpr std::size_t kSize = BLOBRING_HASH_SIZE;

  // 16 zeros.
  constexpr Hash() = default;
  explicit constexpr Hash(const std::array<std::uint8_t, kSize>& digest) : bytes_(digest) {}

  // Returns the hash of a blob with these contents. Throws Error for 4 GiB or more.
  static Hash of(std::span<const std::byte> data);
  static Hash of(std::string_view text) { return of(std::as_bytes(std::span(text))); }

  // Takes 32 hexadecimal digits of either case. Returns nothing for other texts.
  static constexpr std::optional<Hash> parse(std::string_view text) {
    if (text.size() != 2 * kSize) return std::nullopt;
    Hash hash;
    for (std::size_t i = 0; i < text.size(); ++i) {
      const int digit = digitValue(text[i]);
      if (digit < 0) return std::nullopt;
      hash.bytes_[i / 2] = static_cast<std::uint8_t>(hash.bytes_[i / 2] << 4 | digit);
    }
    return hash;
  }

  // Returns 32 hexadecimal digits, lower case.
  std::string text() const {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes_) {
      text += kDigits[byte >> 4];
      text += kDigits[byte & 15];
    }
    return text;
  }

  // Writes text().
  template <class Traits>
  friend std::basic_ostream<char, Traits>& operator<<(std::basic_ostream<char, Traits>& out,
                                                      const Hash& hash) {
    return out << hash.text().c_str();
  }

  constexpr const std::array<std::uint8_t, kSize>& bytes() const { return bytes_; }
  std::uint8_t* data() { return bytes_.data(); }
  const std::uint8_t* data() const { return bytes_.data(); }

  // NOLINTNEXTLINE(modernize-use-nullptr): clang-tidy 14 means the 0 of the generated code
  friend constexpr auto operator<=>(const Hash&, const Hash&) = default;

 private:
  static constexpr int digitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  }

  std::array<std::uint8_t, kSize> bytes_{};
};

inline Hash Hash::of(std::span<const std::byte> data) {
  if (data.size() > std::numeric_limits<unsigned>::max())
    throw Error("blobring: hash of 4 GiB or more", BLOBRING_ERROR_ARGUMENT);
  Hash hash;
  if (BCMD5ChkSumInt(reinterpret_cast<const unsigned char*>(data.data()),
                     static_cast<unsigned>(data.size()), hash.data()) != 1)
    throw Error("blobring: the digest cannot be computed", BCLastErrorCode(-1));
  return hash;
}

}  // namespace blobring

template <>
struct std::hash<blobring::Hash> {
  // Digests are evenly distributed; the first bytes will do.
  std::size_t operator()(const blobring::Hash& key) const noexcept {
    std::size_t value = 0;
    std::memcpy(&value, key.data(), sizeof value);
    return value;
  }
};

#endif
