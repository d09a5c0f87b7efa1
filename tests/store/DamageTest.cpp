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

// After the load, the first of two records changes. What then is asked of the store, each of a
// store of its own.
TEST(Damage, OfOneBlobIsNamedAndHealedByItAloneAndStopsARepack) {
  const std::string four = "aaaa", large(5000, 'l');
  const struct {
    int slots;
    std::string blob;
    std::uint32_t at;
    std::string bytes;
    const char* stopsWith;  // null: a repack leaves the blob behind
  } rows[] = {{2, four, 0, "\1", nullptr},
              {1, four, 0, "\1", nullptr},
              {2, four, 36, "X", "BlobPair Read failed"},
              {2, large, 36, "X", "BlobPair Read failed"},
              {2, four, 16, "X", "BlobPair Read failed"},
              {2, four, 32, "\3", "BlobFile::GetBlob() /s/0.jrn at 64"},
              {2, four, 32, "\377", ""},
              {2, four, 0, StoreRecord(7, "xxxx"), "BlobFile::GetBlob() /s/0.jrn at 64"}};
  for (const auto& row : rows) {
    for (const char* asked : {"put", "get", "repack"}) {
      SCOPED_TRACE(testing::Message() << row.at << ' ' << row.bytes << ' ' << asked);
      FreshMachine();
      const OpenedStore store(row.slots);
      const HashBytes hash = HashOf(row.blob);
      const std::string name = TextOf(hash), size = std::to_string(row.blob.size());
      ASSERT_TRUE(store.Commit(7, {row.blob, "bbbb"}));
      sim::Disk& disk = sim::Files().disk;
      const int journal = disk.Lookup("/s/0.jrn");
      disk.Write(journal, 64 + row.at, row.bytes.data(), row.bytes.size());
      const std::string before = FileBytes("/s/0.jrn");
      EXPECT_EQ(FetchMany(store.index, {HashOf("absent"), HashOf("bbbb"), hash}),
                (std::vector<std::optional<std::string>>{{}, "bbbb", {}}));
      EXPECT_NE(LastErrorOf(store.index).find("offset 64 size " + size), std::string::npos);
      Diagnostics().Clear();
      EXPECT_EQ(BCFsck(store.index), 0);
      EXPECT_NE(Diagnostics().Text().find("Fsck: Blob Entry :hash=" + name +
                                          " transId=7 size=" + size + " offset=64 count = "),
                std::string::npos);
      if (*asked == 'p') {
        unsigned char other = 'o';
        EXPECT_EQ(BCStore(store.index, HashOf(row.blob).data(), &other, 1), 0);
        EXPECT_TRUE(store.Commit(8, {row.blob}) && store.Has(row.blob));
        EXPECT_EQ(BCFsck(store.index), 1);
      } else if (*asked == 'g') {
        EXPECT_EQ(store.GetBy(hash), std::nullopt);
      } else {
        EXPECT_EQ(BCRepack(store.index), row.stopsWith == nullptr);
        const std::string text = LastErrorOf(store.index);
        EXPECT_EQ(store.Has("bbbb"), row.stopsWith == nullptr) << "a failure closes it";
        EXPECT_TRUE(row.slots == 1 || FileBytes("/s/0.jrn") == before);
        if (row.stopsWith != nullptr) {
          EXPECT_TRUE(Diagnostics().Has("error /s/0.jrn, 64, " + size));
          EXPECT_NE(text.find(row.stopsWith), std::string::npos);
          EXPECT_NE(text.find("hash " + name + " file /s/0.jrn offset 64"), text.npos);
          continue;
        }
        EXPECT_TRUE(Diagnostics().Has("warning BlobController::Repack() GetBlob failed on hash " +
                                      name + " size 4"));
        disk.Write(journal, 64, "\0", 1);
        EXPECT_EQ(BCFsck(store.index), row.slots == 1) << "an old file is no place for a blob";
        EXPECT_EQ(StatisticsOf(store.index).blobCount, row.slots == 1 ? 1U : 2U);
      }
    }
  }
}

}  // namespace
}  // namespace test
