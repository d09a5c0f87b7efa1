// What fails, fails visibly, and costs nothing that was acknowledged.
#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using sim::Call;
using sim::Diagnostics;
using sim::Fault;

const std::string kLarge(600000, 'L');  // written by the call that stores it

// Opens the store again after the power was cut.
std::vector<std::string> AfterPowerCut(OpenedStore* store = nullptr) {
  sim::Files().CutPower();
  if (store != nullptr) BCShutdown(store->index, true);
  sim::Files().Restart();
  sim::Files().Heal();
  Diagnostics().Clear();
  const OpenedStore again;
  EXPECT_TRUE(again.loaded) << Diagnostics().Text();
  EXPECT_EQ(BCFsck(again.index), 1);
  std::vector<std::string> blobs = again.All();
  std::sort(blobs.begin(), blobs.end());
  return blobs;
}

using Blobs = std::vector<std::string>;

TEST(Fault, AWriteThatFailsInsideATransactionLeavesItSound) {
  for (const Fault fault : {Fault::Error, Fault::Partial, Fault::DiskFull}) {
    for (std::uint64_t n = 1; n <= 2; ++n) {  // the records gathered before, the large data itself
      SCOPED_TRACE(n);
      FreshMachine();
      OpenedStore store;
      ASSERT_TRUE(store.Start(1) && store.Store("before"));
      sim::Files().FailCallOf(Call::WriteFile, n, fault);
      EXPECT_FALSE(store.Store(kLarge));
      EXPECT_EQ(Diagnostics().records.end(),
                std::find_if(Diagnostics().records.begin(), Diagnostics().records.end(),
                             [](const sim::NumericRecord& r) { return r.id == 0x0F000272; }))
          << "caught by the engine, not by the call";
      EXPECT_TRUE(store.Store("after"));
      ASSERT_TRUE(store.End(1));
      EXPECT_EQ(AfterPowerCut(&store), (Blobs{"after", "before"}));
    }
  }
}

TEST(Fault, AFirstChangeThatFailsTakesItsStartRecordBack) {
  FreshMachine();
  OpenedStore store;
  ASSERT_TRUE(store.Commit(1, {"committed"}));
  ASSERT_TRUE(store.Start(2));
  sim::Files().FailCallOf(Call::WriteFile, 2, Fault::Error);
  EXPECT_FALSE(store.Store(kLarge));
  ASSERT_TRUE(store.Store("next") && store.End(2));
  EXPECT_EQ(AfterPowerCut(&store), (Blobs{"committed", "next"}));
}

// Fails the n-th call of a commit, for each n until it runs through.
TEST(Fault, ACommitThatFailsCanBeRetriedOrAbandonedUnlessItsFlushFailed) {
  for (const Fault fault : {Fault::Error, Fault::Partial, Fault::DoneButFailed}) {
    for (const bool retry : {true, false}) {
      bool fired = true;
      for (std::uint64_t n = 1; fired; ++n) {
        SCOPED_TRACE("call " + std::to_string(n) + (retry ? ", retry" : ", abandon"));
        FreshMachine();
        OpenedStore store;
        ASSERT_TRUE(store.Commit(1, {"committed"}));
        ASSERT_TRUE(store.Start(2) && store.Store("pending"));
        sim::Files().FailCall(n, fault);
        const bool ended = store.End(2);
        fired = sim::Files().fired() > 0;
        EXPECT_EQ(ended, !fired);
        if (!fired) break;
        EXPECT_FALSE(store.Get("pending")) << "no false success";
        EXPECT_TRUE(store.Has("committed")) << "reads go on";
        const bool flushFailed = sim::Files().FailedDuringOp(Call::FlushFileBuffers);
        sim::Files().Heal();
        if (flushFailed) {
          EXPECT_FALSE(store.End(2));
          EXPECT_FALSE(store.Start(3));
          EXPECT_FALSE(store.Store("more"));
          EXPECT_FALSE(store.Delete("committed"));
          EXPECT_EQ(BCRepack(store.index), 0);
          EXPECT_TRUE(store.Has("committed"));
          const Blobs found = AfterPowerCut(&store);
          EXPECT_TRUE(found == Blobs{"committed"} || found == (Blobs{"committed", "pending"}));
          continue;
        }
        if (retry) {
          ASSERT_TRUE(store.Store("more") && store.End(2));
          EXPECT_EQ(AfterPowerCut(&store), (Blobs{"committed", "more", "pending"}));
        } else {
          ASSERT_TRUE(store.Start(3) && store.Store("other") && store.End(3));
          EXPECT_EQ(AfterPowerCut(&store), (Blobs{"committed", "other"}));
        }
      }
    }
  }
}

TEST(Fault, ACommitFlushesOnceWhereTheJournalGrowsAndTwiceElsewhere) {
  FreshMachine();
  const OpenedStore store(2);
  const auto flushesOf = [&](long long id, const std::string& blob) {
    const std::uint64_t before = sim::Files().calls(Call::FlushFileBuffers);
    EXPECT_TRUE(store.Commit(id, {blob}));
    return sim::Files().calls(Call::FlushFileBuffers) - before;
  };
  EXPECT_EQ(flushesOf(1, "grows"), 1U);
  EXPECT_EQ(flushesOf(2, "grows again"), 1U);
  ASSERT_EQ(BCRepack(store.index), 1);
  ASSERT_EQ(BCRepack(store.index), 1);
  EXPECT_EQ(flushesOf(3, "over old records"), 2U);
  ASSERT_TRUE(store.Start(4) && store.Store(kLarge) && store.Start(5));
  EXPECT_EQ(flushesOf(6, "over an abandoned transaction"), 2U);
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
    EXPECT_TRUE(
        Diagnostics().HasWarning("BlobController::Store() threw an exception a flush has failed, no change is accepted "
                                 "until the store is disposed of and opened anew"));
  }  // the close fails as well, and releases the handles all the same
  EXPECT_EQ(sim::Files().openHandles(), 0U);
  const OpenedStore again;
  EXPECT_TRUE(again.loaded && again.Commit(3, {"accepted"}));
  EXPECT_EQ(again.All().size(), 2U);
}

TEST(Fault, NothingCanFailPastTheCommitPoint) {
  FreshMachine();
  const OpenedStore store;
  ASSERT_TRUE(store.Commit(1, {"deleted"}));
  ASSERT_TRUE(store.Start(2) && store.Delete("deleted"));
  for (int i = 0; i < 200; ++i) ASSERT_TRUE(store.Store("blob " + std::to_string(i)));
  // The commit itself needs room for its end record at most; the index none.
  ASSERT_TRUE(store.Store("last"));
  sim::Files().watcher = [](void*, Call call) {
    if (call == Call::FlushFileBuffers) sim::Memory().RefuseAlloc(1, true);
  };
  EXPECT_TRUE(store.End(2));
  sim::Files().watcher = nullptr;
  sim::Memory().RefuseAlloc(0);
  EXPECT_EQ(sim::Memory().refusedAllocs(), 0U);
  EXPECT_EQ(store.All().size(), 201U);
}

TEST(Fault, AddPackDirThatFailsAddsNothingAndCanBeTriedAgain) {
  for (const Call call : {Call::CreateFile, Call::WriteFile, Call::FlushFileBuffers}) {
    for (std::uint64_t n = 1; n <= 2; ++n) {  // the pack, the journal
      SCOPED_TRACE(n);
      FreshMachine();
      const int index = BCInitialize(u"/s");
      ASSERT_EQ(BCAddPackDir(index, u"/s"), 1);
      sim::Files().FailCallOf(call, n, Fault::Error);
      EXPECT_THROW(BCAddPackDir(index, u"/s"), std::runtime_error);
      EXPECT_EQ(sim::Files().openHandles(), 2U);
      ASSERT_EQ(BCAddPackDir(index, u"/s"), 1);
      EXPECT_NE(sim::Files().disk.Lookup("/s/1.pak"), sim::kNoInode);
      EXPECT_EQ(sim::Files().disk.Lookup("/s/2.pak"), sim::kNoInode);
      EXPECT_EQ(BCLoad(index), 1);
      BCDispose(index);
    }
  }
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
  EXPECT_TRUE(Diagnostics().HasError("FileSystem::CreateFile sharing violation file /s/0.pak retry 0"));
  EXPECT_TRUE(Diagnostics().HasError("FileSystem::CreateFile sharing violation file /s/0.pak retry 24"));
  BCDispose(second);
  EXPECT_TRUE(store.Commit(1, {"unharmed"}));
}

// Fails the n-th call of a repack. Whatever it says, nothing is lost.
TEST(Fault, ARepackThatFailsLosesNothing) {
  for (const int slots : {1, 2}) {
    for (const Fault fault : {Fault::Error, Fault::Partial, Fault::DoneButFailed}) {
      bool fired = true;
      for (std::uint64_t n = 1; fired; ++n) {
        SCOPED_TRACE("call " + std::to_string(n) + " slots " + std::to_string(slots));
        FreshMachine();
        {
          OpenedStore store(slots);
          ASSERT_TRUE(store.Commit(1, {"a", "b"}));
          ASSERT_EQ(BCRepack(store.index), 1);
          ASSERT_TRUE(store.Start(2) && store.Delete("a") && store.Store("c") && store.End(2));
          sim::Files().FailCall(n, fault);
          BCRepack(store.index);
          fired = sim::Files().fired() > 0;
          sim::Files().Heal();
          sim::Files().CutPower();
        }
        sim::Files().Restart();
        const OpenedStore again(slots);
        ASSERT_TRUE(again.loaded) << Diagnostics().Text();
        EXPECT_EQ(again.All().size(), 2U);
        EXPECT_TRUE(again.Has("b") && again.Has("c"));
        ASSERT_TRUE(again.Commit(3, {"d"}));
      }
    }
  }
}

TEST(Fault, AProcessThatDiesBetweenWritingAndFlushingAPackLosesNoLaterCommit) {
  // Dies at each change of a repack; the next process commits; then the power
  // fails.
  struct Death {
    std::uint64_t left;
  };
  bool died = true;
  for (std::uint64_t n = 1; died; ++n) {
    FreshMachine();
    Death death{n};
    {
      const OpenedStore store(2);
      ASSERT_TRUE(store.Commit(1, {"a"}));
      sim::Files().watcherContext = &death;
      sim::Files().watcher = [](void* context, Call) {
        if (--static_cast<Death*>(context)->left == 0) sim::Files().Kill();
      };
      BCRepack(store.index);
      sim::Files().watcher = nullptr;
      died = sim::Files().dead();
    }
    sim::Files().Restart();
    {
      const OpenedStore next(2);
      ASSERT_TRUE(next.Commit(2, {"acknowledged"}));
      sim::Files().CutPower();
    }
    sim::Files().Restart();
    const OpenedStore last(2);
    EXPECT_TRUE(last.Has("a") && last.Has("acknowledged")) << "death at call " << n;
  }
}

}  // namespace
}  // namespace test
