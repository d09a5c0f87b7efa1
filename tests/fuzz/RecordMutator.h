// Changes pack and journal files record by record, and then, more often than
// not, makes right again what the change made wrong: sizes, hashes, lengths,
// digests, the header. That is how files are reached that are hostile and yet
// well signed.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

// SplitMix64 (Steele, Lea, Flood 2014).
class Random {
 public:
  explicit Random(std::uint64_t seed) : state(seed) {}
  std::uint32_t Below(std::size_t n) { return static_cast<std::uint32_t>(Next() % n); }
  bool OneIn(std::size_t n) { return Below(n) == 0; }

 private:
  std::uint64_t Next();
  std::uint64_t state;
};

// At most maxSize bytes.
std::string MutateFile(std::string_view file, std::size_t maxSize, Random& random);

// Records of one file behind those of another.
std::string JoinFiles(std::string_view first, std::string_view second, std::size_t maxSize, Random& random);

}  // namespace fuzz
