// What the consistency check and a fetch say of damaged blobs, and that they go on.
#include <gtest/gtest.h>

#include "tests/support/JournalBytes.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using sim::Diagnostics;

int Fetched(int index, const std::string& blob) {
  std::string buffer = blob;  // what is not read must not pass for read
  int size = 0;
  return BCFetch(index, HashOf(blob).data(), reinterpret_cast<unsigned char*>(buffer.data()),
                 static_cast<int>(buffer.size()), &size);
}

TEST(Fsck, ReportsEveryDamagedBlobWithItsPlaceAndGoesOn) {
  FreshMachine();
  Diagnostics().level = 60000;  // dumps damaged blobs to the raw device as well
  const OpenedStore store;
  std::vector<std::string> blobs;
  std::vector<std::uint32_t> offsets = {24 + 40};
  for (int i = 0; i < 300; ++i) {
    blobs.push_back(std::string(i == 0 ? 5000 : 4, 'b') + std::to_string(i));
    offsets.push_back(offsets.back() + 36 + static_cast<std::uint32_t>(blobs.back().size()));
  }
  ASSERT_TRUE(store.Commit(7, blobs));
  EXPECT_EQ(BCFsck(store.index), 1);

  const struct {
    std::size_t blob;
    std::uint32_t at;  // in the record
    std::string bytes;
    const char* reason;
  } rows[] = {{0, 36, "X", "BlobPair Read failed"},
              {5, 0, "\1", "the record is not the blob's"},
              {8, 32, "\377", "BlobPair::Read : too large size"},
              {11, 0, StoreRecord(7, "xxxx11"), "BlobFile::GetBlob() /s/0.jrn at "},
              {299, 36, "X", "BlobPair Read failed"}};
  sim::Disk& disk = sim::Files().disk;
  for (const auto& row : rows)
    disk.Write(disk.Lookup("/s/0.jrn"), offsets[row.blob] + row.at, row.bytes.data(),
               static_cast<std::uint32_t>(row.bytes.size()));
  Diagnostics().Clear();
  EXPECT_EQ(BCFsck(store.index), 0);
  EXPECT_EQ(Diagnostics().lines.back(), "error   BlobController::Fsck() storage is corrupted");
  EXPECT_NE(Diagnostics().raw.find(" BlobPair::Read DATA was: 58626262"), std::string::npos);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.blob);
    const HashBytes hash = HashOf(blobs[row.blob]);
    const std::string size = std::to_string(blobs[row.blob].size()),
                      offset = std::to_string(offsets[row.blob]);
    const std::string place = "Fsck: Blob Entry :hash=" + TextOf(hash) + " transId=7 size=" + size +
                              " offset=" + offset + " count = ";
    EXPECT_NE(Diagnostics().Text().find(place), std::string::npos);
    EXPECT_EQ(Fetched(store.index, blobs[row.blob]), BLOBRING_FAILED);
    EXPECT_EQ(BCLastErrorCode(store.index), BLOBRING_ERROR_DAMAGED);
    EXPECT_NE(LastErrorOf(store.index)
                  .find("file /s/0.jrn offset " + offset + " size " + size + ": " + row.reason),
              std::string::npos)
        << LastErrorOf(store.index);
  }
  EXPECT_EQ(Fetched(store.index, blobs[1]), BLOBRING_FETCHED) << "the store stays open";
}

TEST(Fsck, ABlobThatCannotBeReadNeverPasses) {
  for (const std::string& blob : {std::string("same"), std::string(9000, 's')}) {
    FreshMachine();
    const OpenedStore store;
    ASSERT_TRUE(store.Commit(1, {blob}));
    sim::Files().FailCallOf(sim::Call::ReadFile, 1, sim::Fault::Error, true);
    EXPECT_EQ(BCFsck(store.index), 0);
    sim::Files().Heal();
    EXPECT_EQ(BCFsck(store.index), 1);
  }
}

}  // namespace
}  // namespace test
