#include "bench/Blobs.h"

#include <openssl/evp.h>

#include <cstring>
#include <memory>
#include <random>

#include "bench/Require.h"

namespace bench {

namespace {

// Fetched once and used again: the quick way through OpenSSL 3, where a
// one-shot call looks the algorithm up by name every time.
struct Digest {
  EVP_MD* algorithm = EVP_MD_fetch(nullptr, "MD5", nullptr);
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  ~Digest() {
    EVP_MD_CTX_free(context);
    EVP_MD_free(algorithm);
  }
};

void FillRandomly(std::span<unsigned char> bytes, std::uint64_t seed) {
  std::mt19937_64 random(seed);
  std::size_t at = 0;
  for (; at + sizeof(std::uint64_t) <= bytes.size(); at += sizeof(std::uint64_t)) {
    const std::uint64_t word = random();
    std::memcpy(bytes.data() + at, &word, sizeof word);
  }
  for (; at < bytes.size(); ++at) bytes[at] = static_cast<unsigned char>(random());
}

}  // namespace

Key DigestOf(Blob blob) {
  static Digest digest;
  Key key;
  Require(EVP_DigestInit_ex2(digest.context, digest.algorithm, nullptr) == 1 &&
              EVP_DigestUpdate(digest.context, blob.data(), blob.size()) == 1 &&
              EVP_DigestFinal_ex(digest.context, key.data(), nullptr) == 1,
          "OpenSSL", "MD5");
  return key;
}

Blobs::Blobs(std::size_t blobCount, std::size_t blobSize, std::uint64_t seed)
    : size(blobSize), bytes(blobCount * blobSize) {
  FillRandomly(bytes, seed);
  blobs.reserve(blobCount);
  keys.reserve(blobCount);
  for (std::size_t i = 0; i < blobCount; ++i) {
    blobs.push_back(Blob(bytes).subspan(i * size, size));
    keys.push_back(DigestOf(blobs.back()));
  }
}

std::vector<Key> AbsentKeys(std::size_t count, std::uint64_t seed) {
  std::vector<Key> keys(count);
  FillRandomly({keys.empty() ? nullptr : keys.front().data(), count * sizeof(Key)}, seed);
  return keys;
}

std::vector<std::size_t> RandomPicks(std::size_t count, std::size_t limit, std::uint64_t seed) {
  std::mt19937_64 random(seed);
  std::uniform_int_distribution<std::size_t> pick(0, limit - 1);
  std::vector<std::size_t> picks(count);
  for (std::size_t& p : picks) p = pick(random);
  return picks;
}

}  // namespace bench
