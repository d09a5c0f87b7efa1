// Two messages and many: whatever computes them, each has its own digest.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "md5/MD5.h"
#include "md5/MD5LaneEngine.h"
#include "md5/MD5Lanes.h"
#include "md5/MD5Pair.h"
#include "tests/md5/Reference.h"

namespace {

const std::uint8_t* Bytes(std::string_view text) {
  return reinterpret_cast<const std::uint8_t*>(text.data());
}
std::uint32_t Size(std::string_view text) {
  return static_cast<std::uint32_t>(text.size());
}

std::string Finished(MD5& md5) {
  std::string raw(16, '\0');
  md5.finalize();
  md5.raw_digest(reinterpret_cast<std::uint8_t*>(raw.data()));
  return HexOf(raw);
}

TEST(UpdateBoth, ContinuesBothWhereverTheyStand) {
  const std::string firstBytes = RandomBytes(5100, 1), secondBytes = RandomBytes(5100, 2);
  for (const std::size_t firstHas : {0U, 1U, 63U, 64U}) {
    for (const std::size_t secondHas : {0U, 30U, 63U, 130U}) {
      for (const std::size_t firstLength : {0U, 1U, 63U, 64U, 65U, 128U, 5000U}) {
        for (const std::size_t secondLength : {0U, 1U, 63U, 64U, 127U, 1000U, 4970U}) {
          const std::string_view first = std::string_view(firstBytes).substr(0, firstHas + firstLength);
          const std::string_view second = std::string_view(secondBytes).substr(0, secondHas + secondLength);
          SCOPED_TRACE(testing::Message()
                       << firstHas << '+' << firstLength << ", " << secondHas << '+' << secondLength);
          MD5 one, two;
          one.update(Bytes(first), static_cast<std::uint32_t>(firstHas));
          two.update(Bytes(second), static_cast<std::uint32_t>(secondHas));
          const std::string_view rest1 = first.substr(firstHas), rest2 = second.substr(secondHas);
          UpdateBoth(one, Bytes(rest1), Size(rest1), two, Bytes(rest2), Size(rest2));
          // A tail, so that a wrong count or buffer shows.
          one.update(Bytes("tail"), 4);
          two.update(Bytes("tail"), 4);
          EXPECT_EQ(Finished(one), HexOf(ReferenceDigest(std::string(first) + "tail")));
          EXPECT_EQ(Finished(two), HexOf(ReferenceDigest(std::string(second) + "tail")));
        }
      }
    }
  }
}

TEST(UpdateBoth, TakesOneInputTwiceAndSkipsAFinishedDigest) {
  const std::string bytes = RandomBytes(1000);
  MD5 key, transaction;
  transaction.update(Bytes("header"), 6);
  UpdateBoth(key, Bytes(bytes), Size(bytes), transaction, Bytes(bytes), Size(bytes));
  const std::string keyDigest = Finished(key);
  EXPECT_EQ(keyDigest, HexOf(ReferenceDigest(bytes)));

  UpdateBoth(key, Bytes(bytes), Size(bytes), transaction, Bytes(bytes), Size(bytes));
  UpdateBoth(transaction, Bytes(bytes), Size(bytes), key, Bytes(bytes), Size(bytes));
  UpdateBoth(transaction, nullptr, 0, key, nullptr, 0);
  EXPECT_EQ(Finished(key), keyDigest);
  EXPECT_EQ(Finished(transaction), HexOf(ReferenceDigest("header" + bytes + bytes + bytes)));
}

// Messages, each in an allocation of its own size, where a sanitizer sees any
// read beyond it; their digests start out wrong.
class Messages {
 public:
  void Add(std::size_t size) {
    const std::string bytes = RandomBytes(size, static_cast<std::uint32_t>(contents.size()));
    contents.push_back(std::make_unique<std::uint8_t[]>(size));
    bytes.copy(reinterpret_cast<char*>(contents.back().get()), size);
    expected.push_back(HexOf(ReferenceDigest(bytes)));
    messages.push_back({contents.back().get(), size, nullptr});
  }

  // By the engine, or by the library's own choice.
  void Check(const md5::LaneEngine* engine, bool ownChoice = false) {
    std::string digests(16 * messages.size(), '?');
    for (std::size_t i = 0; i < messages.size(); ++i) {
      messages[i].digest = reinterpret_cast<std::uint8_t*>(digests.data()) + 16 * i;
    }
    if (ownChoice) {
      DigestMany(messages.data(), messages.size());
    } else {
      md5::DigestMany(messages.data(), messages.size(), engine);
    }
    for (std::size_t i = 0; i < messages.size(); ++i) {
      EXPECT_EQ(HexOf(std::string_view(digests).substr(16 * i, 16)), expected[i])
          << "message " << i << " of " << messages.size() << ", " << messages[i].size << " bytes, "
          << (engine ? engine->name : "scalar");
    }
  }

  void CheckAll() {
    Check(nullptr);
    if (const md5::LaneEngine* engine = md5::FindLaneEngine()) Check(engine);
    Check(nullptr, true);
  }

 private:
  std::vector<std::unique_ptr<std::uint8_t[]>> contents;
  std::vector<std::string> expected;
  std::vector<MD5Message> messages;
};

TEST(DigestMany, DoesEverySizeInLanesThatEndAtDifferentTimes) {
  Messages messages;
  messages.CheckAll();
  for (std::size_t size = 0; size <= 300; ++size) messages.Add(size);
  messages.CheckAll();
}

// Every number of lanes in use, with equal messages and with all different
// ones, from too few for the vectors to more than they have lanes.
TEST(DigestMany, DoesAnyNumberOfMessages) {
  Messages equal, growing, shrinking;
  for (std::size_t count = 1; count <= 40; ++count) {
    equal.Add(1000);
    growing.Add(100 * count);
    shrinking.Add(100 * (41 - count));
    equal.CheckAll();
    growing.CheckAll();
    shrinking.CheckAll();
  }
}

// One message outlasts the others, in the first lane, in the last or between,
// and is carried on in another lane and another engine.
TEST(DigestMany, FinishesALongMessageThatIsLeftAlone) {
  for (std::size_t place = 0; place < 20; ++place) {
    Messages messages;
    for (std::size_t i = 0; i < 20; ++i) messages.Add(i == place ? 100001 : 10 * i);
    messages.CheckAll();
  }
}

// The bytes behind `from`, in pieces of one size, each in an allocation that
// is gone when the next one is asked for. Fails after `pieces` of them.
class Pieces final : public MD5Source {
 public:
  Pieces(std::string_view whole, std::size_t from, std::size_t pieceSize, std::size_t pieces = SIZE_MAX)
      : rest(whole.substr(from)), size(pieceSize), left(pieces) {}

  std::span<const std::uint8_t> Next() override {
    if (left-- == 0) throw std::runtime_error("no piece");
    EXPECT_FALSE(ended) << "asked again behind the last piece";
    const std::size_t length = std::min(size, rest.size());
    piece = std::make_unique<std::uint8_t[]>(length);
    rest.copy(reinterpret_cast<char*>(piece.get()), length);
    rest.remove_prefix(length);
    ended = length % 64 != 0 || length == 0;
    return {piece.get(), length};
  }

 private:
  std::string_view rest;
  const std::size_t size;
  std::size_t left;
  bool ended = false;
  std::unique_ptr<std::uint8_t[]> piece;
};

// Beside one another and beside whole ones, in lanes that want their next
// piece at the same time and at different times; a few bytes at the front or
// none; ends at a block's end, within one, and where nothing comes after all.
TEST(DigestMany, DoesMessagesThatComeInPieces) {
  const std::string bytes = RandomBytes(3000);
  for (const bool inVectors : {false, true}) {
    for (const std::size_t count : {1U, 2U, 7U, 16U, 40U}) {
      for (const std::size_t pieceSize : {64U, 192U, 1024U, 4096U}) {
        SCOPED_TRACE(testing::Message() << count << " in pieces of " << pieceSize << (inVectors ? ", vectors" : ""));
        std::vector<MD5Message> messages;
        std::vector<std::unique_ptr<Pieces>> sources;
        std::string digests(16 * count, '?');
        constexpr std::size_t kSizes[] = {0, 1, 63, 64, 65, 128, 1000, 1024, 2048, 3000};
        constexpr std::size_t kFronts[] = {0, 64, 128};
        const auto sizeOf = [&](std::size_t i) { return kSizes[i % std::size(kSizes)]; };
        for (std::size_t i = 0; i < count; ++i) {
          const bool isWhole = i % 7 == 6;
          const std::size_t front = isWhole ? sizeOf(i) : std::min(kFronts[i % 3], sizeOf(i) / 64 * 64);
          sources.push_back(std::make_unique<Pieces>(std::string_view(bytes).substr(0, sizeOf(i)), front, pieceSize));
          messages.push_back({Bytes(bytes), front, reinterpret_cast<std::uint8_t*>(digests.data()) + 16 * i,
                              isWhole ? nullptr : sources.back().get()});
        }
        md5::DigestMany(messages.data(), count, inVectors ? md5::FindLaneEngine() : nullptr);
        for (std::size_t i = 0; i < count; ++i)
          EXPECT_EQ(HexOf(std::string_view(digests).substr(16 * i, 16)),
                    HexOf(ReferenceDigest(std::string_view(bytes).substr(0, sizeOf(i)))))
              << i;
      }
    }
  }
}

TEST(DigestMany, PassesOnWhatASourceThrows) {
  const std::string bytes = RandomBytes(1000);
  for (const std::size_t failing : {0U, 5U, 19U}) {
    for (const std::size_t good : {0U, 3U}) {
      std::vector<Pieces> sources;
      for (std::size_t i = 0; i < 20; ++i) sources.emplace_back(bytes, 0, 64, i == failing ? good : SIZE_MAX);
      std::vector<MD5Message> messages;
      std::string digests(16 * sources.size(), '?');
      for (std::size_t i = 0; i < sources.size(); ++i)
        messages.push_back({nullptr, 0, reinterpret_cast<std::uint8_t*>(digests.data()) + 16 * i, &sources[i]});
      EXPECT_THROW(DigestMany(messages.data(), messages.size()), std::runtime_error) << failing << ' ' << good;
    }
  }
}

TEST(DigestMany, DoesMixedSizes) {
  const auto seed = static_cast<std::uint32_t>(testing::UnitTest::GetInstance()->random_seed());
  SCOPED_TRACE(testing::Message() << "--gtest_random_seed=" << seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 20; ++round) {
    Messages messages;
    for (std::size_t i = random() % 100; i-- > 0;) messages.Add(random() % (std::size_t{1} << random() % 14));
    messages.CheckAll();
  }
}

}  // namespace
