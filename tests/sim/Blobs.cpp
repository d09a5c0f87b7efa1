#include "tests/sim/Blobs.h"

#include <array>
#include <cstring>
#include <stdexcept>

#include "blobring/blobring.h"

namespace explore {

namespace {

// Few sizes, so that records of an earlier life of a file line up with those
// written over them. A record is 36 bytes longer than its blob, a transaction
// of one record 56 bytes longer than that: 420 fills one sector, 932 two.
constexpr int kSizes[] = {60, 60, 420, 3, 60, 700, 60, 476, 932, 60, 1500, 60, 420};
constexpr int kLargeSizes[] = {20'000, kLargestBlob};

// Blob 0 is the empty one, and blob 1 a single byte.
std::size_t SizeOf(int id) {
  if (id < 2) return static_cast<std::size_t>(id);
  return static_cast<std::size_t>(id < kLarge ? kSizes[static_cast<std::size_t>(id) % std::size(kSizes)]
                                              : kLargeSizes[id - kLarge]);
}

struct Universe {
  std::array<Blob, kAllBlobs> blobs;
  std::array<std::int8_t, 256> byFirstByte;  // -1 none, -2 more than one

  Universe() {
    byFirstByte.fill(-1);
    for (int id = 0; id < kAllBlobs; ++id) {
      Blob& blob = blobs[static_cast<std::size_t>(id)];
      Random random(static_cast<std::uint64_t>(id) + 1000);
      const std::size_t size = SizeOf(id);
      blob.data.resize(size);
      for (unsigned char& byte : blob.data) byte = static_cast<unsigned char>(random.Next());
      if (BCMD5ChkSumInt(blob.data.data(), static_cast<unsigned>(size), blob.hash) != 1)
        throw std::logic_error("no digest");
      std::int8_t& slot = byFirstByte[blob.hash[0]];
      slot = static_cast<std::int8_t>(slot == -1 ? id : -2);
    }
  }
};

Universe& TheUniverse() {
  static Universe universe;
  return universe;
}

}  // namespace

Blob& BlobOf(int blob) {
  return TheUniverse().blobs[static_cast<std::size_t>(blob)];
}

std::string Names(Mask blobs) {
  std::string text = "{";
  for (int id = 0; id < kAllBlobs; ++id)
    if ((blobs & Bit(id)) != 0) text.append(text.size() > 1 ? " " : "").append(std::to_string(id));
  return text + "}";
}

int BlobOfHash(const unsigned char* hash) {
  Universe& universe = TheUniverse();
  const int guess = universe.byFirstByte[hash[0]];
  if (guess >= 0) return std::memcmp(BlobOf(guess).hash, hash, 16) == 0 ? guess : -1;
  if (guess == -2)
    for (int id = 0; id < kAllBlobs; ++id)
      if (std::memcmp(BlobOf(id).hash, hash, 16) == 0) return id;
  return -1;
}

}  // namespace explore
