// Writing the next generation, and what may not be lost by it.
#include <gtest/gtest.h>

#include "tests/support/JournalBytes.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using sim::Diagnostics;

TEST(Repack, IsRefusedWhereItWouldLoseSomething) {
  FreshMachine();
  const auto refused = [](int index, const char* reason) {
    Diagnostics().Clear();
    const bool failed = BCRepack(index) == 0;
    return failed &&
           Diagnostics().HasError(std::string("BlobController::Repack() refused: ") + reason);
  };
  {
    const OpenedStore none(0);
    EXPECT_FALSE(none.loaded);
    EXPECT_TRUE(refused(none.index, "the store has no slot"));
    EXPECT_FALSE(none.Store("x"));
    EXPECT_EQ(BCFsck(none.index), 1);
  }
  {
    const OpenedStore store(2);
    ASSERT_TRUE(store.Start(1) && store.Store("a"));
    EXPECT_TRUE(refused(store.index, "changes are pending, end the transaction first"));
    ASSERT_TRUE(store.End(1));
    EXPECT_TRUE(store.Has("a")) << "open and as it was";
  }
  {
    const int index = BCInitialize(u"/s");
    BCAddPackDir(index, u"/s");
    EXPECT_TRUE(refused(index, "the store is not loaded"));
    BCDispose(index);
  }
  const OpenedStore store(2);
  EXPECT_TRUE(store.Has("a"));
  BCShutdown(store.index, true);
  EXPECT_TRUE(
      refused(store.index, "the store is closed, no change is accepted until it is opened again"));
}

TEST(Repack, SkipsWhatIsNoStoreRecordAndStopsAtADamagedBlob) {
  const std::string journal =
      JournalBytes().Transaction(1, {StoreRecord(1, "aaaa"), StoreRecord(1, "bbbb")}).Bytes();
  constexpr std::uint32_t kFirst = 24 + 40;
  const std::string hash = TextOf(HashOf("aaaa"));
  for (const int slots : {1, 2}) {
    for (const bool damaged : {false, true}) {
      SCOPED_TRACE(std::to_string(slots) + (damaged ? " damaged" : " gone"));
      FreshMachine();
      { const OpenedStore fresh(slots); }
      SetFile("/s/0.jrn", journal);
      const OpenedStore store(slots);
      // Under the store's feet: another byte of data, or another op.
      sim::Disk& disk = sim::Files().disk;
      disk.Write(disk.Lookup("/s/0.jrn"), damaged ? kFirst + 36 : kFirst, "\1", 1);
      const std::string before = FileBytes("/s/0.jrn");
      Diagnostics().Clear();
      ASSERT_EQ(BCRepack(store.index), damaged ? 0 : 1);
      EXPECT_EQ(store.Has("bbbb"), !damaged) << "a failure closes it";
      if (!damaged) {
        EXPECT_TRUE(Diagnostics().HasWarning("BlobController::Repack() GetBlob failed on hash " +
                                             hash + " size 4"));
        EXPECT_EQ(BCFsck(store.index), slots == 1 ? 1 : 0)
            << "where the old file is left, its entry is reported";
        continue;
      }
      EXPECT_NE(Diagnostics().Text().find(
                    "BlobController::Repack() Invalid Blob Detected. Failed on index["),
                std::string::npos);
      EXPECT_TRUE(Diagnostics().HasError("file.path, file offset, blob size"));
      EXPECT_TRUE(Diagnostics().HasError("/s/0.jrn, 64, 4"));
      EXPECT_TRUE(Diagnostics().HasError(
          "BlobController::Repack() threw an exception BlobPair Read failed"));
      EXPECT_EQ(FileBytes("/s/0.jrn"), before) << "the old generation is as it was";
      EXPECT_EQ(disk.Lookup("/s/0.pak.new"), sim::kNoInode);
    }
  }
}

}  // namespace
}  // namespace test
