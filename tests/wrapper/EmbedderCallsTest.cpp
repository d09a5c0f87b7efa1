// The calls for embedders where the wrapper hides what they do.
#include <blobring/host.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>

#include "platform/Win32.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

// Programs built with an earlier header, and with a later one.
TEST(EmbedderCalls, StructuresHaveTheSizeThatTheCallerSays) {
  FreshMachine();
  const OpenedStore store;
  struct {
    BCStatistics known;
    unsigned char later[16], beyond;
  } grown;
  const auto byte = [&](std::size_t at) { return reinterpret_cast<unsigned char*>(&grown)[at]; };
  for (const std::size_t size :
       {offsetof(BCStatistics, damaged), sizeof(BCStatistics) + sizeof grown.later}) {
    std::fill_n(reinterpret_cast<unsigned char*>(&grown), sizeof grown,
                static_cast<unsigned char>(0xAA));
    grown.known.size = static_cast<std::uint32_t>(size);
    ASSERT_EQ(BCGetStatistics(store.index, &grown.known), 1);
    EXPECT_TRUE(grown.known.size == size && byte(size - 1) == 0 && byte(size) == 0xAA);
  }
  BCOptions options{};
  options.size = offsetof(BCOptions, mustExist);
  options.mustExist = options.readOnly = 1;  // beyond what the first version had
  const int index = BCOpen("/a", &options);
  EXPECT_EQ(StatisticsOf(index).readOnly, 0);
  BCDispose(index);
}

// Each store has its own text. Routine lines do not replace it; a disposed store leaves none.
TEST(EmbedderCalls, LastErrorBelongsToItsStore) {
  FreshMachine();
  const int first = BCOpen("/s", nullptr), second = BCOpen("/b", nullptr);
  HashBytes hash{};
  EXPECT_EQ(BCPut(first, nullptr, 3, hash.data()) + BCDelete(second, nullptr), 0);
  EXPECT_EQ(BCFsck(first) + BCCheck(second), 1 + BLOBRING_CHECK_SOUND);
  EXPECT_EQ(LastErrorOf(first), "BCPut: data is null");
  char cut[6] = "-----";
  EXPECT_EQ(BCLastError(first, cut, 5) + BCLastError(first, nullptr, 0), 2 * 19);
  EXPECT_STREQ(cut, "BCPu");
  // The cause comes first; a text that is too long loses its end.
  const long long id = 1;
  for (unsigned char i = 0; i < 50; ++i) BCPut(first, &i, 1, hash.data());
  ASSERT_EQ(BCEndTransaction(first, &id), 1);
  sim::Files().disk.Write(sim::Files().disk.Lookup("/s/0.jrn"), 64 + 36, "X", 1);
  EXPECT_EQ(BCRepack(first), BLOBRING_NOT_REPACKED);
  EXPECT_EQ(BCLastError(first, nullptr, 0), 1023);
  EXPECT_EQ(LastErrorOf(first).find("what is on disk is not what a store wrote: Blob::"), 0U);
  BCDispose(first);
  EXPECT_EQ(LastErrorOf(first), LastErrorOf(-1));
  EXPECT_EQ(LastErrorOf(second), "BCDelete: hash is null");
  BCDispose(second);
}

// The outer call goes on, whatever the host's function calls.
TEST(EmbedderCalls, AreRefusedInsideAnotherCall) {
  FreshMachine();
  const OpenedStore store;
  ASSERT_TRUE(store.Commit(1, {""}));
  struct Inside {
    int index;
    std::vector<int> results;
    std::string text;
  } inside{store.index, {}, {}};
  const auto callBack = [](void* context, int, std::uint64_t, std::uint64_t) {
    Inside& in = *static_cast<Inside*>(context);
    in.results = {BCDispose(in.index),      BCOpen("/b", nullptr),
                  BCInitialize(u"/b"),      BCShutdown(in.index, true),
                  BCLoad(in.index),         FilterException(in.index, 1, nullptr),
                  BCLastErrorCode(in.index)};
    in.text = LastErrorOf(in.index);
    return 0;
  };
  BCSetProgress(store.index, callBack, &inside);
  EXPECT_EQ(BCCheck(store.index), BLOBRING_CHECK_SOUND);
  EXPECT_EQ(inside.results, (std::vector<int>{0, -1, -1, 0, 0, 0, BLOBRING_ERROR_REFUSED}));
  EXPECT_EQ(inside.text.find("BCDispose: called from inside another call\nBCOpen: called"), 0U);

  // A refusal is traced once, or the sink would call again for it.
  inside.results.clear();
  BlobringHostSetTraceSink(
      [](void* context, int, const char*, const char*) {
        Inside& in = *static_cast<Inside*>(context);
        in.results.push_back(BCDispose(in.index) + BCOpen("/b", nullptr));
      },
      &inside);
  EXPECT_EQ(BCPut(store.index, nullptr, 1, nullptr), 0);
  sim::Diagnostics() = sim::SimDiagnostics();
  EXPECT_EQ(inside.results, std::vector<int>(3, -1));

  // A host that takes an access violation does not return to the outer call.
  const auto takeException = [](void* context, int, std::uint64_t, std::uint64_t) {
    Inside& in = *static_cast<Inside*>(context);
    unsigned char next[BLOBRING_HASH_SIZE];
    in.results = {FilterException(in.index, EXCEPTION_ACCESS_VIOLATION, nullptr),
                  BCNextHash(in.index, nullptr, next), BCFsck(in.index)};
    return 1;
  };
  sim::Files().disk.Write(sim::Files().disk.Lookup("/s/0.jrn"), 64, "\1", 1);
  BCSetProgress(store.index, takeException, &inside);
  sim::Diagnostics().Clear();
  BCCheck(store.index);
  EXPECT_EQ(inside.results, (std::vector<int>{1, 1, 0}));
  EXPECT_EQ(sim::Diagnostics().Records().back().at(0), 0x0F000262U);
}

}  // namespace
}  // namespace test
