// The blobs that the explorer stores: a small fixed set, so that what a store
// holds is a set of bits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace explore {

using Mask = std::uint64_t;  // bit i: blob i is there

// Blobs 0 to kBlobCount - 1 are for workloads. The probes are stored after a
// recovery, to see whether a new commit works.
constexpr int kBlobCount = 40;
constexpr int kProbe = 40;
constexpr int kLaterProbe = 41;
// Two that fill several writes of a journal, for scripts alone.
constexpr int kLarge = 42;
constexpr int kLarger = 43;
constexpr int kAllBlobs = 44;
constexpr std::size_t kLargestBlob = 100'000;

struct Blob {
  std::vector<unsigned char> data;
  unsigned char hash[16];
  int size() const { return static_cast<int>(data.size()); }
};

constexpr Mask Bit(int blob) {
  return Mask{1} << blob;
}
// Writable, for the exported functions take pointers to non-const.
Blob& BlobOf(int blob);
// The blob of a hash; -1: none of ours.
int BlobOfHash(const unsigned char* hash);

// "{0 4 17}".
std::string Names(Mask blobs);

// Deterministic random numbers (SplitMix64, Steele, Lea and Flood, 2014).
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}
  std::uint64_t Next() {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15U);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9U;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBU;
    return z ^ (z >> 31);
  }
  // 0 to n - 1.
  unsigned Below(unsigned n) { return static_cast<unsigned>(Next() % n); }

 private:
  std::uint64_t state_;
};

}  // namespace explore
