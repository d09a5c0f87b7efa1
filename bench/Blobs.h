// What is stored: blobs of random bytes, which no peer can compress, and the
// keys under which they are stored, their MD5 digests.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace bench {

using Key = std::array<unsigned char, 16>;
using Blob = std::span<const unsigned char>;

// The key of a blob by OpenSSL: what every peer's user pays for a key.
Key DigestOf(Blob blob);

// `count` blobs of `size` bytes each, in one piece of memory, the same for
// the same seed.
class Blobs {
 public:
  Blobs(std::size_t blobCount, std::size_t blobSize, std::uint64_t seed);

  std::size_t Count() const { return blobs.size(); }
  std::size_t Size() const { return size; }  // of one, in bytes
  std::size_t TotalSize() const { return bytes.size(); }
  std::span<const Blob> All() const { return blobs; }
  std::span<const Key> Keys() const { return keys; }

 private:
  std::size_t size;
  std::vector<unsigned char> bytes;
  std::vector<Blob> blobs;
  std::vector<Key> keys;
};

// Keys that no blob has: random bytes.
std::vector<Key> AbsentKeys(std::size_t count, std::uint64_t seed);

// `count` picks from 0 to limit - 1, with repetition.
std::vector<std::size_t> RandomPicks(std::size_t count, std::size_t limit, std::uint64_t seed);

}  // namespace bench
