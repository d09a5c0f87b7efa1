// What a load, the consistency check, a fetch and a repack make of damaged files.
#include <gtest/gtest.h>

#include "tests/support/JournalBytes.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using Policy = OpenedStore::Policy;
using sim::Diagnostics;

// By its count a pack is read behind its endOffset, and nothing of that is cut off.
TEST(Repack, LeavesTheOlderPackAsItWasRead) {
  FreshMachine();
  const std::string pack =
      JournalBytes(1).Transaction(0, {StoreRecord(1, "packed")}).End(100).Bytes();
  SetFile("/s/0.pak", pack);
  EXPECT_EQ(BCRepack(OpenedStore(2, Policy::Keep).index), 1);
  EXPECT_EQ(FileBytes("/s/0.pak"), pack);
}

// Before a load, slot 0's journal takes a change, and only if the load will find it there.
TEST(Load, AChangeBeforeItIsFoundOrRefused) {
  for (const auto& [repacks, torn, taken] :
       {std::tuple(0, false, true), {0, true, false}, {1, false, false}, {2, false, true}}) {
    SCOPED_TRACE(testing::Message() << repacks << torn);
    FreshMachine();
    {
      const OpenedStore store(2);
      ASSERT_TRUE(store.Commit(1, {"old"}));
      for (int i = 0; i < repacks; ++i) ASSERT_EQ(BCRepack(store.index), 1);
    }
    const std::string journal = FileBytes("/s/0.jrn");
    if (torn) SetFile("/s/0.jrn", With(journal, journal.size() - 17, "X"));
    const OpenedStore store(2, Policy::NotLoaded);
    EXPECT_EQ(store.Commit(2, {"early"}), taken);
    EXPECT_NE(BCAddPackDir(store.index, u"/a"), taken) << "another slot may be the newest";
    EXPECT_EQ(BCLoad(store.index), 1);
    EXPECT_EQ(store.Has("early"), taken);
    EXPECT_EQ(store.Has("old"), !torn);
  }
}

int Fetched(int index, const std::string& blob) {
  std::string buffer = blob;  // what is not read must not pass for read
  int size = 0;
  return BCFetch(index, HashOf(blob).data(), reinterpret_cast<unsigned char*>(buffer.data()),
                 static_cast<int>(buffer.size()), &size);
}

TEST(Fsck, ReportsEveryDamagedBlobWithItsPlaceAndGoesOn) {
  FreshMachine();
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
  } rows[] = {{0, 36, "X"},
              {5, 0, "\1"},
              {8, 32, "\377"},
              {9, 32, "\1"},
              {11, 0, StoreRecord(7, "xxxx11")},
              {299, 36, "X"}};
  sim::Disk& disk = sim::Files().disk;
  for (const auto& row : rows)
    disk.Write(disk.Lookup("/s/0.jrn"), offsets[row.blob] + row.at, row.bytes.data(),
               static_cast<std::uint32_t>(row.bytes.size()));
  std::vector<HashBytes> hashes = {HashOf("absent"), HashOf(blobs[7])};
  for (const std::string& blob : blobs) hashes.push_back(HashOf(blob));
  std::vector<std::optional<std::string>> expected = {std::nullopt, blobs[7]};
  expected.insert(expected.end(), blobs.begin(), blobs.end());
  for (const auto& row : rows) expected[2 + row.blob].reset();
  EXPECT_EQ(FetchMany(store.index, hashes), expected);
  Diagnostics().Clear();
  EXPECT_EQ(BCFsck(store.index), 0);
  EXPECT_EQ(Diagnostics().lines.back(), "error BlobController::Fsck() storage is corrupted");
  for (const auto& row : rows) {
    SCOPED_TRACE(row.blob);
    const std::string& blob = blobs[row.blob];
    const std::string size = std::to_string(blob.size()),
                      offset = std::to_string(offsets[row.blob]);
    EXPECT_NE(
        Diagnostics().Text().find("Fsck: Blob Entry :hash=" + TextOf(HashOf(blob)) +
                                  " transId=7 size=" + size + " offset=" + offset + " count = "),
        std::string::npos);
    EXPECT_EQ(Fetched(store.index, blob), BLOBRING_FAILED);
    EXPECT_EQ(BCLastErrorCode(store.index), BLOBRING_ERROR_DAMAGED);
    EXPECT_NE(LastErrorOf(store.index).find("offset " + offset + " size " + size),
              std::string::npos);
    unsigned char other = 'o';
    EXPECT_EQ(BCStore(store.index, HashOf(blob).data(), &other, 1), 0) << "only itself replaces it";
    EXPECT_TRUE(store.Commit(8, {blob}));
    EXPECT_EQ(Fetched(store.index, blob), BLOBRING_FETCHED) << "stored again";
  }
  const std::uint64_t length = StatisticsOf(store.index).journalBytes;
  EXPECT_TRUE(store.Commit(9, blobs) && BCFsck(store.index) == 1);
  EXPECT_EQ(StatisticsOf(store.index).journalBytes, length) << "the rest is present";
  const std::string other = StoreRecord(7, "xxxx1");
  disk.Write(disk.Lookup("/s/0.jrn"), offsets[1], other.data(), other.size());
  EXPECT_EQ(store.GetBy(HashOf(blobs[1])), std::nullopt) << "another blob is not given out";
}

// After the load, the first record changes.
TEST(Repack, SkipsWhatIsNoStoreRecordAndStopsAtADamagedBlob) {
  const struct {
    int slots;
    std::uint32_t at;
    std::string bytes;
    const char* stopsWith;  // null: the blob is left behind
  } rows[] = {{2, 0, "\1", nullptr},
              {1, 0, "\1", nullptr},
              {2, 36, "X", "BlobPair Read failed"},
              {2, 16, "X", "BlobPair Read failed"},
              {2, 32, "\3", "BlobFile::GetBlob() /s/0.jrn at 64"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.bytes);
    FreshMachine();
    const OpenedStore store(row.slots);
    ASSERT_TRUE(store.Commit(1, {"aaaa", "bbbb"}));
    sim::Disk& disk = sim::Files().disk;
    disk.Write(disk.Lookup("/s/0.jrn"), 64 + row.at, row.bytes.data(),
               static_cast<std::uint32_t>(row.bytes.size()));
    const std::string before = FileBytes("/s/0.jrn");
    EXPECT_EQ(BCRepack(store.index), row.stopsWith == nullptr);
    const std::string text = LastErrorOf(store.index);
    EXPECT_EQ(store.Has("bbbb"), row.stopsWith == nullptr) << "a failure closes it";
    EXPECT_TRUE(row.slots == 1 || FileBytes("/s/0.jrn") == before) << "the old generation stays";
    if (row.stopsWith != nullptr) {
      EXPECT_TRUE(Diagnostics().Has("error /s/0.jrn, 64, 4"));
      EXPECT_NE(text.find(row.stopsWith), std::string::npos);
      EXPECT_NE(text.find("hash " + TextOf(HashOf("aaaa")) + " file /s/0.jrn offset 64"),
                text.npos);
      continue;
    }
    EXPECT_TRUE(Diagnostics().Has("warning BlobController::Repack() GetBlob failed on hash " +
                                  TextOf(HashOf("aaaa")) + " size 4"));
    disk.Write(disk.Lookup("/s/0.jrn"), 64, "\0", 1);
    EXPECT_EQ(BCFsck(store.index), row.slots == 1) << "an old file is no place for a blob";
    EXPECT_EQ(StatisticsOf(store.index).blobCount, row.slots == 1 ? 1U : 2U);
  }
}

}  // namespace
}  // namespace test
