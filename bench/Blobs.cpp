#include "bench/Blobs.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>

namespace bench {

void Require(bool holds, const char* who, const char* what) {
  if (!holds) throw std::runtime_error(std::string(who) + ": " + what + " failed");
}

Key DigestOf(Blob blob) {
  // Fetched once: OpenSSL 3 looks an algorithm up by name on every one-shot call.
  static EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "MD5", nullptr);
  static EVP_MD_CTX* const context = EVP_MD_CTX_new();
  Key key;
  Require(EVP_DigestInit_ex2(context, algorithm, nullptr) == 1 &&
              EVP_DigestUpdate(context, blob.data(), blob.size()) == 1 &&
              EVP_DigestFinal_ex(context, key.data(), nullptr) == 1,
          "OpenSSL", "MD5");
  return key;
}

Blobs::Blobs(std::size_t count, std::size_t size, std::uint64_t seed) : bytes(count * size) {
  std::mt19937_64 random(seed);
  for (std::size_t at = 0; at < bytes.size(); at += sizeof(std::uint64_t)) {
    const std::uint64_t word = random();
    std::memcpy(bytes.data() + at, &word, std::min(sizeof(word), bytes.size() - at));
  }
  for (std::size_t i = 0; i < count; ++i) {
    blobs.push_back(Blob(bytes).subspan(i * size, size));
    keys.push_back(DigestOf(blobs.back()));
  }
}

std::vector<Key> PickedKeys(const Blobs& blobs, std::size_t count, std::uint64_t seed) {
  std::mt19937_64 random(seed);
  std::vector<Key> keys(count);
  for (Key& key : keys) key = blobs.Keys()[random() % blobs.Count()];
  return keys;
}

std::vector<Key> AbsentKeys(std::size_t count, std::uint64_t seed) {
  const Blobs others(count, sizeof(std::uint64_t), seed);
  return {others.Keys().begin(), others.Keys().end()};
}

}  // namespace bench
