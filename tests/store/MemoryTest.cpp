// Pools, tags, exhaustion, refused releases.
#include <gtest/gtest.h>

#include <stdexcept>

#include "pack/BlobPair.h"
#include "store/BlobController.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

TEST(Memory, EveryBlockHasItsPoolAndTag) {
  FreshMachine();
  const BlobPair onTheStack;
  static_assert(sizeof(BlobFile::BlobFileEntry) == (sizeof(void*) == 4 ? 56 : 72));
  File file;
  EXPECT_EQ(file.allocationTag, 31064064U);

  const std::size_t live = sim::Memory().liveBlocks();
  {
    const OpenedStore store;
    EXPECT_EQ(sim::Memory().Of(20, 31064064).liveBlocks, 3U) << "a controller, a pack, a journal";
    EXPECT_EQ(sim::Memory().Of(31, 31064077).liveBytes, 50 * sizeof(BlobFile::BlobFileEntry));
    const sim::SimMemory::Account before = sim::Memory().Of(31, 31064068);
    ASSERT_TRUE(store.Commit(1, {"a"}));
    const sim::SimMemory::Account after = sim::Memory().Of(31, 31064068);
    EXPECT_EQ(after.allocations - before.allocations, 1U) << "one node a blob, and one allocation";
    EXPECT_EQ(after.liveBytes - before.liveBytes, sizeof(void*) == 4 ? 88U : 120U);
  }
  EXPECT_EQ(sim::Memory().liveBlocks(), live);
}

TEST(Memory, AnOpenThatFindsNoneRegistersNothing) {
  for (std::uint64_t n = 1; n <= 2; ++n) {
    FreshMachine();
    const std::size_t live = sim::Memory().liveBlocks();
    const int before = BCInitialize(u"/s");
    sim::Memory().RefuseAlloc(n);
    try {
      BCInitialize(u"/s");
      ADD_FAILURE();
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "Unable to allocate memory");
    }
    sim::Memory().RefuseAlloc(0);
    const int after = BCInitialize(u"/s");
    EXPECT_EQ(after, before + 1);
    BCDispose(before);
    BCDispose(after);
    EXPECT_EQ(sim::Memory().liveBlocks(), live);
  }
}

TEST(Memory, ARefusedReleaseThrowsWhereItCanAndIsTracedElsewhere) {
  FreshMachine();
  void* block = BlobStoreBase::operator new(10);
  sim::Memory().RefuseFree(1);
  EXPECT_THROW(BlobStoreBase::operator delete(block), std::runtime_error);
  BlobStoreBase::operator delete(block);

  {
    const OpenedStore store;
    ASSERT_TRUE(store.Commit(1, {"a", "b"}));
    ASSERT_TRUE(store.Start(2) && store.Delete("a"));
    sim::Memory().RefuseFree(1, true);
    EXPECT_TRUE(store.End(2)) << "the index lets go of a node";
    EXPECT_EQ(BCRepack(store.index), 1);
    EXPECT_EQ(BCDispose(store.index), 1);
    EXPECT_TRUE(sim::Diagnostics().HasError("Unable to free memory"));
  }
  sim::Memory().RefuseFree(0);
  const OpenedStore again;
  EXPECT_TRUE(again.Has("b"));
}

// Refuses the n-th allocation of a change and its commit, for each n until it
// runs through.
TEST(Memory, AChangeWithoutMemoryIsRefusedWholeOrDone) {
  bool refused = true;
  for (std::uint64_t n = 1; refused; ++n) {
    SCOPED_TRACE(n);
    FreshMachine();
    bool stored = false, ended = false;
    {
      const OpenedStore store;
      ASSERT_TRUE(store.Commit(1, {"committed"}));
      ASSERT_TRUE(store.Start(2));
      const std::uint64_t before = sim::Memory().refusedAllocs();
      sim::Memory().RefuseAlloc(n);
      stored = store.Store("new");
      ended = store.End(2);
      refused = sim::Memory().refusedAllocs() != before;
      sim::Memory().RefuseAlloc(0);
      EXPECT_EQ(store.Has("new"), stored && ended);
      if (!ended) {
        EXPECT_TRUE(store.End(2));
      }
      EXPECT_EQ(store.Has("new"), stored);
    }
    const OpenedStore again;
    EXPECT_EQ(again.Has("new"), stored);
    EXPECT_TRUE(again.Has("committed"));
  }
}

}  // namespace
}  // namespace test
