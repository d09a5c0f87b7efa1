// What fails, fails visibly, and costs nothing that was acknowledged.
#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>

#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using sim::Call;
using sim::Diagnostics;
using sim::Fault;

const std::string kLarge(600000, 'L');  // written by the call that stores it

// From the 33rd commit on a journal has zeros ahead of it, new or used again; a
// close cuts them off.
TEST(Fault, ACommitFlushesTwiceUntilTheJournalHasBlankSpaceAhead) {
  FreshMachine();
  std::optional<OpenedStore> opened(std::in_place, 2);
  const OpenedStore& store = *opened;
  const auto flushesOf = [&](long long id, const std::string& blob) {
    const std::uint64_t before = sim::Files().calls(Call::FlushFileBuffers);
    EXPECT_TRUE(store.Commit(id, {blob}));
    return sim::Files().calls(Call::FlushFileBuffers) - before;
  };
  for (const char* life : {"new", "used again"}) {
    for (int id = 1; id <= 3000; ++id) {
      SCOPED_TRACE(testing::Message() << life << ' ' << id);
      ASSERT_EQ(flushesOf(id, life + std::to_string(id)), id <= 33 ? 2U : 1U);
    }
    ASSERT_EQ(BCRepack(store.index), 1);
    ASSERT_EQ(BCRepack(store.index), 1);
  }
  for (int id = 1; id <= 40; ++id) flushesOf(id, "small" + std::to_string(id));
  ASSERT_TRUE(store.Start(4) && store.Store("abandoned") && store.Start(5));
  EXPECT_EQ(flushesOf(6, "over an abandoned transaction"), 2U);
  EXPECT_EQ(flushesOf(7, "behind it"), 1U);
  sim::Files().FailCallOf(Call::WriteFile, 2, Fault::Partial);
  ASSERT_TRUE(store.Start(8) && !store.Store(kLarge) && store.Start(9));
  EXPECT_EQ(flushesOf(10, "over what a failed write has left"), 2U);
  for (int id = 11; id <= 12; ++id) flushesOf(id, "blank again" + std::to_string(id));
  ASSERT_TRUE(store.Start(13) && store.Store("first try"));
  sim::Files().FailCallOf(Call::WriteFile, 2, Fault::Error);  // of the header
  ASSERT_FALSE(store.End(13));
  const std::uint64_t before = sim::Files().calls(Call::FlushFileBuffers);
  ASSERT_TRUE(store.Store("second try") && store.End(13));
  EXPECT_EQ(sim::Files().calls(Call::FlushFileBuffers) - before, 2U)
      << "over what a failed commit has left";
  BCStatistics statistics{};
  statistics.size = sizeof statistics;
  ASSERT_EQ(BCGetStatistics(store.index, &statistics), 1);
  EXPECT_GT(FileBytes("/s/0.jrn").size(), statistics.journalBytes);
  opened.reset();
  EXPECT_EQ(FileBytes("/s/0.jrn").size(), statistics.journalBytes);
}

TEST(Fault, AFailedFlushIsOverOnceTheStoreIsOpenedAnew) {
  FreshMachine();
  {
    OpenedStore store;
    ASSERT_TRUE(store.Commit(1, {"committed"}));
    ASSERT_TRUE(store.Start(2) && store.Store("lost"));
    sim::Files().FailCallOf(Call::FlushFileBuffers, 1, Fault::Error);
    EXPECT_FALSE(store.End(2));
    Diagnostics().Clear();
    EXPECT_FALSE(store.Store("refused"));
    EXPECT_TRUE(Diagnostics().HasWarning(
        "BlobController::Store() threw an exception a flush has failed, no change is accepted "
        "until the store is disposed of and opened again"));
  }  // the close fails as well, and releases the handles all the same
  EXPECT_EQ(sim::Files().openHandles(), 0U);
  const OpenedStore again;
  EXPECT_TRUE(again.loaded && again.Commit(3, {"accepted"}));
  EXPECT_EQ(again.All().size(), 2U);
}

TEST(Fault, ASecondOpenerIsRefusedAfterHalfASecond) {
  FreshMachine();
  const OpenedStore store;
  const int second = BCInitialize(u"/s");
  Diagnostics().Clear();
  const std::uint64_t slept = sim::Files().sleptMs;
  try {
    BCAddPackDir(second, u"/s");
    ADD_FAILURE();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "FileSystem::CreateFile error /s/0.pak GetLastError code= 32");
  }
  EXPECT_EQ(sim::Files().sleptMs - slept, 500U);
  EXPECT_TRUE(
      Diagnostics().HasError("FileSystem::CreateFile sharing violation file /s/0.pak retry 0"));
  EXPECT_TRUE(
      Diagnostics().HasError("FileSystem::CreateFile sharing violation file /s/0.pak retry 24"));
  BCDispose(second);
  EXPECT_TRUE(store.Commit(1, {"unharmed"}));
}

}  // namespace
}  // namespace test
