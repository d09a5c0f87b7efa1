// What a transaction writes and flushes, and what a failure leaves of it.
#include <gtest/gtest.h>

#include <optional>

#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using sim::Call;
using sim::Fault;

// From the 33rd commit on a journal has zeros ahead of it, new or used again; a close cuts them
// off. A commit over anything else flushes its records as well as its header.
TEST(Transaction, ACommitFlushesTwiceUntilTheJournalHasBlankSpaceAhead) {
  FreshMachine();
  std::optional<OpenedStore> opened(std::in_place, 2);
  const OpenedStore& store = *opened;
  const auto flushes = [&](const std::string& blob) {
    const std::uint64_t before = sim::Files().calls(Call::FlushFileBuffers);
    EXPECT_TRUE(store.Store(blob) && store.End(1));
    return sim::Files().calls(Call::FlushFileBuffers) - before;
  };
  for (const char* life : {"new", "used again"}) {
    for (int n = 1; n <= 3000; ++n) {
      SCOPED_TRACE(testing::Message() << life << ' ' << n);
      ASSERT_EQ(flushes(life + std::to_string(n)), n <= 33 ? 2U : 1U);
    }
    ASSERT_EQ(BCRepack(store.index) + BCRepack(store.index), 2);
    ASSERT_TRUE(store.Start(1) && store.Store("first, abandoned") && store.Start(1));
  }
  for (int n = 1; n <= 40; ++n) flushes("small" + std::to_string(n));
  EXPECT_EQ(flushes("new1"), 0U) << "the store has it";
  ASSERT_TRUE(store.Start(1) && store.Store("abandoned") && store.Start(1));
  EXPECT_EQ(flushes("over an abandoned transaction"), 2U);
  EXPECT_EQ(flushes("behind it"), 1U);
  sim::Files().FailCallOf(Call::WriteFile, 2, Fault::Partial);
  ASSERT_TRUE(store.Store("whole") && !store.Store(std::string(600000, 'L')));
  EXPECT_EQ(flushes("over what a failed write has left"), 2U);
  EXPECT_EQ(flushes("behind it again"), 1U);
  const std::string large(600'000, 'L');
  ASSERT_TRUE(store.Store("in the blank space"));
  ASSERT_EQ(StoreInPieces(store.index, large, large.substr(1)), 0);
  EXPECT_EQ(FileBytes("/s/0.jrn").size(), StatisticsOf(store.index).journalBytes) << "cut off";
  EXPECT_EQ(flushes("over what a source that failed has left"), 2U);
  EXPECT_EQ(flushes("behind it once more"), 1U);
  ASSERT_TRUE(store.Store("first try"));
  sim::Files().FailCallOf(Call::WriteFile, 3, Fault::Error);  // of the header
  ASSERT_FALSE(store.End(1));
  EXPECT_EQ(flushes("over what a failed commit has left"), 2U);
  const std::uint64_t records = StatisticsOf(store.index).journalBytes;
  EXPECT_GT(FileBytes("/s/0.jrn").size(), records);
  opened.reset();
  EXPECT_EQ(FileBytes("/s/0.jrn").size(), records);
  opened.emplace(2);
  ASSERT_TRUE(opened->Store(std::string(600000, 'L')));
  opened.reset();
  EXPECT_EQ(FileBytes("/s/0.jrn").size(), records) << "what was not committed is cut off, too";
  EXPECT_EQ(FileBytes("/s/0.jrn")[12], 4) << "the sequence of its pack";
  SetFile("/s/0.jrn", FileBytes("/s/0.jrn") + "left by a process that was killed");
  ASSERT_EQ(BCRepack(OpenedStore(2).index), 1);
  EXPECT_EQ(FileBytes("/s/0.jrn").size(), records) << "the older generation is cut as well";
}

}  // namespace
}  // namespace test
