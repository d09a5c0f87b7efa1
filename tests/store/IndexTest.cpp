// The index beside a std::map, with the keys that a store has and with those that only a hostile
// file has.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>

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

// Grows to thousands and back to none, twice.
TEST(Index, AnswersAsAMapWhateverTheKeys) {
  using Random = std::mt19937_64;
  const std::function<Hash(Random&)> keys[] = {
      [](Random& random) { return HashOf(random(), random()); },
      [](Random& random) { return HashOf(random() % 500 << 55, 0); },  // often the same
      [](Random& random) { return HashOf(7, random()); },              // in one bucket
      [](Random& random) { return HashOf(0 - (random() & 1), random() % 4000 - 2000); }};
  for (const auto& make : keys) {
    Random random(11);
    BlobIndex index;
    std::map<Hash, std::uint32_t> model;  // hash to size
    for (std::uint32_t step = 0; step < 40'000; ++step) {
      const Hash hash = make(random), sought = make(random);
      if (random() % 4 < (step / 10'000 % 2 == 0 ? 3 : 1)) {
        bool isNew = false;
        index.FindOrMake(hash, isNew)->second.size = step;
        ASSERT_EQ(isNew, model.count(hash) == 0);
        model[hash] = step;
      } else if (const auto victim = model.lower_bound(hash); victim != model.end()) {
        index.Erase(Hash(victim->first));
        model.erase(victim);
      }
      const auto found = std::as_const(index).Find(sought), after = index.After(sought);
      const auto known = model.find(sought), next = model.upper_bound(sought);
      ASSERT_TRUE(known == model.end()
                      ? found == index.end()
                      : found != index.end() && found->second.size == known->second);
      ASSERT_TRUE(next == model.end() ? after == index.end()
                                      : after != index.end() && after->first == next->first);
    }
    ASSERT_EQ(index.size(), model.size());
    for (auto expected = model.begin(); const auto& [hash, entry] : index)
      ASSERT_TRUE(hash == expected->first && entry.size == (expected++)->second);
  }
}

// In a list or a tree out of balance this takes hours.
TEST(Index, KeepsItsBalanceWithKeysInOrderAndInOneBucket) {
  BlobIndex index;
  bool isNew = false;
  constexpr std::uint64_t kCount = 300'000;
  for (std::uint64_t n = 0; n < kCount; ++n) index.FindOrMake(HashOf(5, n), isNew);
  for (std::uint64_t n = kCount; n-- > 0;) ASSERT_NE(index.Find(HashOf(5, n)), index.end());
  for (std::uint64_t n = 0; n < kCount; ++n) index.Erase(HashOf(5, n));
  EXPECT_TRUE(index.empty());
}

}  // namespace
