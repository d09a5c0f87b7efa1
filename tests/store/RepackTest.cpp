// Writing the next generation, and what may not be lost by it.
#include <gtest/gtest.h>

#include "tests/support/JournalBytes.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using sim::Diagnostics;

TEST(Repack, IsRefusedWhereItWouldLoseSomething) {
  FreshMachine();
  const OpenedStore none(0), store;
  ASSERT_TRUE(store.Start(1) && store.Store("a"));
  const std::pair<int, std::string> rows[] = {
      {none.index, "the store has no slot"},
      {store.index, "changes are pending, end the transaction first"}};
  for (const auto& [index, reason] : rows) {
    EXPECT_EQ(BCRepack(index), BLOBRING_NOT_REPACKED);
    EXPECT_EQ(LastErrorOf(index), "BlobController::Repack() refused: " + reason);
  }
  EXPECT_TRUE(store.End(1) && store.Has("a")) << "open and as it was";
}

// After the load a record is damaged, or its op becomes another one.
TEST(Repack, SkipsWhatIsNoStoreRecordAndStopsAtADamagedBlob) {
  for (const bool damaged : {false, true}) {
    SCOPED_TRACE(damaged);
    FreshMachine();
    const OpenedStore store(2);
    ASSERT_TRUE(store.Commit(1, {"aaaa", "bbbb"}));
    sim::Disk& disk = sim::Files().disk;
    disk.Write(disk.Lookup("/s/0.jrn"), 24 + 40 + (damaged ? 36 : 0), "\1", 1);
    const std::string before = FileBytes("/s/0.jrn");
    ASSERT_EQ(BCRepack(store.index), damaged ? 0 : 1);
    EXPECT_EQ(store.Has("bbbb"), !damaged) << "a failure closes it";
    EXPECT_EQ(FileBytes("/s/0.jrn"), before) << "the old generation is as it was";
    if (damaged) {
      EXPECT_TRUE(Diagnostics().HasError("/s/0.jrn, 64, 4"));
      EXPECT_TRUE(Diagnostics().HasError(
          "BlobController::Repack() threw an exception BlobPair Read failed"));
      continue;
    }
    EXPECT_TRUE(Diagnostics().HasWarning("BlobController::Repack() GetBlob failed on hash " +
                                         TextOf(HashOf("aaaa")) + " size 4"));
    disk.Write(disk.Lookup("/s/0.jrn"), 24 + 40, "\0", 1);
    EXPECT_EQ(BCFsck(store.index), 0) << "in the old file, which is no place for a blob";
  }
}

}  // namespace
}  // namespace test
