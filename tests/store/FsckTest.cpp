// The consistency check: what it reports, and that it goes on.
#include <gtest/gtest.h>

#include <map>

#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using sim::Diagnostics;

// Where the data of a blob of one journal transaction lies: all of one size.
std::uint32_t DataOffset(int record, std::uint32_t size) {
  return 24 + 40 + static_cast<std::uint32_t>(record) * (36 + size) + 36;
}

TEST(Fsck, ReportsEveryDamagedBlobWithItsPlaceAndGoesOn) {
  FreshMachine();
  Diagnostics().level = 60000;  // dumps damaged blobs to the raw device as well
  const OpenedStore store;
  std::vector<std::string> blobs;
  for (int i = 0; i < 300; ++i) blobs.push_back("blob " + std::to_string(1000 + i));
  ASSERT_TRUE(store.Commit(7, blobs));
  EXPECT_EQ(BCFsck(store.index), 1);

  std::map<HashBytes, int> order;
  for (const std::string& blob : blobs) order[HashOf(blob)] = 0;
  for (int place = 0; auto& [hash, at] : order) at = place++;
  sim::Disk& disk = sim::Files().disk;
  const int journal = disk.Lookup("/s/0.jrn");
  disk.Write(journal, DataOffset(5, 9), "X", 1);         // data
  disk.Write(journal, DataOffset(6, 9) - 36, "\1", 1);   // op
  disk.Write(journal, DataOffset(7, 9) - 20, "XX", 2);   // hash
  disk.Write(journal, DataOffset(8, 9) - 4, "\377", 1);  // size
  Diagnostics().Clear();
  EXPECT_EQ(BCFsck(store.index), 0);
  for (const int damaged : {5, 6, 7, 8}) {
    const HashBytes hash = HashOf(blobs[static_cast<std::size_t>(damaged)]);
    EXPECT_TRUE(Diagnostics().HasError(
        "Fsck: Blob Entry :hash=" + TextOf(hash) +
        " transId=7 size=9 offset=" + std::to_string(DataOffset(damaged, 9) - 36) +
        " count = " + std::to_string(order[hash]) + " filename=/s/0.jrn"))
        << Diagnostics().Text();
    EXPECT_TRUE(
        Diagnostics().HasError("BlobController::Fsck() Blob " + TextOf(hash) + " is corrupt"));
  }
  EXPECT_EQ(Diagnostics().lines.back().text, "BlobController::Fsck() storage is corrupted");
  EXPECT_NE(Diagnostics().raw.find(" BlobPair::Read DATA was: 586C6F62"), std::string::npos)
      << Diagnostics().raw;
  EXPECT_TRUE(store.Has(blobs[0])) << "the store stays open";
}

// An empty blob that is not there must not pass for being empty.
TEST(Fsck, ABlobThatCannotBeReadNeverPasses) {
  for (const std::string& blob : {std::string(), std::string("same"), std::string(9000, 's')}) {
    FreshMachine();
    const OpenedStore store;
    ASSERT_TRUE(store.Commit(1, {blob, "before"}));
    sim::Files().FailCallOf(sim::Call::ReadFile, 1, sim::Fault::Error, true);
    EXPECT_EQ(BCFsck(store.index), 0);
    sim::Files().Heal();
    EXPECT_EQ(BCFsck(store.index), 1);
    EXPECT_TRUE(store.Has(blob));
  }
}

}  // namespace
}  // namespace test
