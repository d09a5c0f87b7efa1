// What the digests are compared with: OpenSSL's, and bytes to digest.
#pragma once

#include <openssl/evp.h>

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <string_view>

class Reference {
 public:
  Reference() : context(EVP_MD_CTX_new(), EVP_MD_CTX_free) { EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr); }
  void Add(std::string_view bytes) { EVP_DigestUpdate(context.get(), bytes.data(), bytes.size()); }

  // The 16 bytes of the digest; the object is spent.
  std::string Finish() {
    std::string raw(16, '\0');
    EVP_DigestFinal_ex(context.get(), reinterpret_cast<unsigned char*>(raw.data()), nullptr);
    return raw;
  }

 private:
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context;
};

inline std::string ReferenceDigest(std::string_view bytes) {
  Reference reference;
  reference.Add(bytes);
  return reference.Finish();
}

inline std::string HexOf(std::string_view raw) {
  std::string text;
  for (const char c : raw) {
    text += "0123456789abcdef"[static_cast<unsigned char>(c) >> 4];
    text += "0123456789abcdef"[static_cast<unsigned char>(c) & 15];
  }
  return text;
}

// The same bytes for the same size and seed.
inline std::string RandomBytes(std::size_t size, std::uint32_t seed = 1321) {
  std::mt19937 random(seed);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(random());
  return bytes;
}
