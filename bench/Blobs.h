// What is stored: blobs of random bytes, which no peer can compress, and their keys, which are
// their MD5 digests.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace bench {

using Key = std::array<unsigned char, 16>;
using Blob = std::span<const unsigned char>;

// Throws std::runtime_error with both texts if something does not hold.
void Require(bool holds, const char* who, const char* what);

// The key of a blob by OpenSSL: what a peer's user pays for a key.
Key DigestOf(Blob blob);

// count blobs of size bytes each, in one piece of memory. The same seed gives the same blobs.
class Blobs {
 public:
  Blobs(std::size_t count, std::size_t size, std::uint64_t seed);

  std::size_t Count() const { return blobs.size(); }
  std::size_t TotalSize() const { return bytes.size(); }
  std::span<const Blob> All() const { return blobs; }
  std::span<const Key> Keys() const { return keys; }

 private:
  std::vector<unsigned char> bytes;
  std::vector<Blob> blobs;
  std::vector<Key> keys;
};

// count keys picked at random, with repetition; absent: of no blob.
std::vector<Key> PickedKeys(const Blobs& blobs, std::size_t count, std::uint64_t seed);
std::vector<Key> AbsentKeys(std::size_t count, std::uint64_t seed);

}  // namespace bench
