// Pools and tags of what the store takes, and releases that are refused.
#include <gtest/gtest.h>

#include <stdexcept>

#include "store/BlobController.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

TEST(Memory, EveryBlockHasItsPoolAndTag) {
  FreshMachine();
  const std::size_t live = sim::Memory().liveBlocks();
  {
    const OpenedStore store;
    EXPECT_EQ(sim::Memory().Of(20, 31064064).liveBlocks, 3U) << "a controller, a pack, a journal";
    EXPECT_EQ(sim::Memory().Of(31, 31064077).liveBytes, 50 * sizeof(BlobFile::BlobFileEntry));
    const sim::SimMemory::Account before = sim::Memory().Of(31, 31064068);
    ASSERT_TRUE(store.Commit(1, {"a"}));
    EXPECT_EQ(sim::Memory().Of(31, 31064068).allocations - before.allocations, 1U)
        << "one node for each blob";
  }
  EXPECT_EQ(sim::Memory().liveBlocks(), live);
}

TEST(Memory, ARefusedReleaseThrows) {
  FreshMachine();
  void* block = BlobStoreBase::operator new(10);
  sim::Memory().RefuseFree(1);
  EXPECT_THROW(BlobStoreBase::operator delete(block), std::runtime_error);
  BlobStoreBase::operator delete(block);
}

}  // namespace
}  // namespace test
