// The index with keys that only a hostile file has. The fuzzer compares stores with a model.
#include <gtest/gtest.h>

#include "store/BlobIndex.h"

namespace {

Hash HashOf(std::uint64_t high, std::uint64_t low) {
  unsigned char bytes[Hash::kSize];
  for (int i = 0; i < 16; ++i)
    bytes[i] = static_cast<unsigned char>((i < 8 ? high : low) >> (56 - 8 * (i % 8)));
  Hash hash;
  hash.setHash(bytes);
  return hash;
}

// In a list or a tree out of balance this takes hours.
TEST(Index, KeepsItsBalanceWithKeysInOrderAndInOneBucket) {
  BlobIndex index;
  bool isNew = false;
  constexpr std::uint64_t kCount = 300'000;
  for (std::uint64_t n = 0; n < kCount; ++n) index.FindOrMake(HashOf(5, n), isNew);
  for (std::uint64_t n = kCount; n-- > 0;) ASSERT_NE(index.Find(HashOf(5, n)), index.end());
  std::uint64_t next = 0;
  const BlobIndex& read = index;
  for (auto blob = read.begin(); blob != read.end(); blob = read.After(blob->first), ++next)
    ASSERT_TRUE(blob->first == HashOf(5, next));
  EXPECT_EQ(next, kCount);
  for (std::uint64_t n = 0; n < kCount; ++n) index.Erase(HashOf(5, n));
  EXPECT_TRUE(index.empty());
}

}  // namespace
