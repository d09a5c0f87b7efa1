// The index beside a std::map, with the keys that a store has and with those
// that only a hostile file has.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <random>

#include "store/BlobIndex.h"

namespace {

using Model = std::map<Hash, std::uint32_t>;  // hash to size
using MakeHash = std::function<Hash(std::mt19937_64&)>;

Hash HashOf(std::uint64_t high, std::uint64_t low) {
  unsigned char bytes[Hash::kSize];
  for (int i = 0; i < 8; ++i) {
    bytes[i] = static_cast<unsigned char>(high >> (56 - 8 * i));
    bytes[8 + i] = static_cast<unsigned char>(low >> (56 - 8 * i));
  }
  Hash hash;
  hash.setHash(bytes);
  return hash;
}

void Put(BlobIndex& index, Model& model, const Hash& hash, std::uint32_t size) {
  bool isNew = false;
  index.FindOrMake(hash, isNew)->second.size = size;
  ASSERT_EQ(isNew, model.count(hash) == 0);
  model[hash] = size;
}

void ExpectSame(const BlobIndex& index, const Model& model) {
  ASSERT_EQ(index.size(), model.size());
  auto expected = model.begin();
  for (const auto& [hash, entry] : index) {
    ASSERT_EQ(hash, expected->first);
    ASSERT_EQ(entry.size, expected->second);
    ++expected;
  }
}

void ExpectAnswers(const BlobIndex& index, const Model& model, const Hash& hash) {
  const auto found = index.Find(hash);
  ASSERT_EQ(found != index.end(), model.count(hash) == 1);
  if (found != index.end()) {
    ASSERT_EQ(found->second.size, model.at(hash));
  }
  const auto after = index.After(hash);
  const auto expected = model.upper_bound(hash);
  ASSERT_EQ(after != index.end(), expected != model.end());
  if (after != index.end()) {
    ASSERT_EQ(after->first, expected->first);
  }
}

struct Keys {
  const char* what;
  MakeHash make;
};

const Keys kKeys[] = {
    {"digests", [](std::mt19937_64& random) { return HashOf(random(), random()); }},
    {"few digests, often the same", [](std::mt19937_64& random) { return HashOf(random() % 500 << 55, 0); }},
    {"all in one bucket", [](std::mt19937_64& random) { return HashOf(7, random()); }},
    {"the ends of the order",
     [](std::mt19937_64& random) { return HashOf(0 - (random() & 1), random() % 4000 - 2000); }},
};

// Grows to thousands and back to none, twice, with every operation on the way.
TEST(Index, AnswersAsAMapWhateverTheKeys) {
  for (const Keys& keys : kKeys) {
    SCOPED_TRACE(keys.what);
    std::mt19937_64 random(11);
    BlobIndex index;
    Model model;
    for (int step = 0; step < 40'000; ++step) {
      const bool grows = step / 10'000 % 2 == 0;
      const Hash hash = keys.make(random);
      if (model.empty() || random() % 4 < (grows ? 3 : 1)) {
        Put(index, model, hash, static_cast<std::uint32_t>(step));
      } else {
        const auto near = model.lower_bound(hash);
        const Hash victim = near == model.end() ? model.begin()->first : near->first;
        index.Erase(victim);
        model.erase(victim);
      }
      index.Erase(HashOf(random(), 1));  // hardly ever there
      std::mt19937_64 again = random;
      ExpectAnswers(index, model, keys.make(again));
      if (HasFatalFailure()) return;
      if (step % 4'999 == 0) ExpectSame(index, model);
    }
    ExpectSame(index, model);
    index.EraseIf([](const BlobIndex::Entry& entry) { return entry.size % 3 == 0; });
    std::erase_if(model, [](const auto& blob) { return blob.second % 3 == 0; });
    ExpectSame(index, model);
  }
}

TEST(Index, TakesOverTheBlobsOfAnother) {
  for (const Keys& keys : kKeys) {
    SCOPED_TRACE(keys.what);
    std::mt19937_64 random(12);
    BlobIndex index, other;
    Model model, otherModel;
    for (std::uint32_t n = 0; n < 5'000; ++n) {
      Put(index, model, keys.make(random), n);
      Put(other, otherModel, keys.make(random), n + 10'000);
    }
    other.TakeAll([&](BlobIndex::Handle blob) { index.Insert(std::move(blob)); });
    for (const auto& [hash, size] : otherModel) model[hash] = size;
    ExpectSame(index, model);
    ExpectSame(other, Model());
    index.Clear();
    ExpectSame(index, Model());
  }
}

// In a list or a tree out of balance this takes hours.
TEST(Index, KeepsItsBalanceWithKeysInOrderAndInOneBucket) {
  BlobIndex index;
  bool isNew = false;
  constexpr std::uint64_t kCount = 300'000;
  for (std::uint64_t n = 0; n < kCount; ++n) index.FindOrMake(HashOf(5, n), isNew);
  for (std::uint64_t n = 0; n < kCount; ++n) ASSERT_NE(index.Find(HashOf(5, kCount - 1 - n)), index.end());
  for (std::uint64_t n = 0; n < kCount; ++n) index.Erase(HashOf(5, n));
  EXPECT_TRUE(index.empty());
}

}  // namespace
