// The bytes on disk, written by hand here, and what a load makes of bytes
// that no store wrote.
#include <gtest/gtest.h>

#include "pack/BlobFile.h"
#include "tests/support/JournalBytes.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

TEST(Format, AFreshStoreHoldsTwoEmptyHeadersPerSlot) {
  FreshMachine();
  const int index = BCInitialize(u"/s");
  ASSERT_EQ(BCAddPackDir(index, u"/a"), 1);
  ASSERT_EQ(BCAddPackDir(index, u"/b"), 1);
  const std::string journal = Hex("00040000 00000000 00000000 00000000 01000000 18000000");
  const std::string pack = Hex("00040000 00000000 01000000 00000000 01000000 18000000");
  EXPECT_EQ(FileBytes("/a/0.pak"), pack);
  EXPECT_EQ(FileBytes("/s/0.jrn"), journal);
  EXPECT_EQ(FileBytes("/b/1.pak"), pack);
  EXPECT_EQ(FileBytes("/s/1.jrn"), journal);
  EXPECT_EQ(BCLoad(index), 1);
  EXPECT_EQ(BCGetAllBlobHashesReset(index), 0);
  BCDispose(index);
}

TEST(Format, TheWorkedJournalOf119Bytes) {
  FreshMachine();
  const OpenedStore store;
  ASSERT_TRUE(store.Commit(5, {"abc"}));
  EXPECT_EQ(FileBytes("/s/0.jrn"), Hex("00040000 03000000 00000000 00000000 01000000 77000000"
                                       "02000000 00000000 0500000000000000"
                                       "03000000 27000000 a8bae5c961c45b9db2f338fe4956f56f"
                                       "00000000 00000000 0500000000000000"
                                       "900150983cd24fb0d6963f7d28e17f72 03000000 616263"
                                       "03000000 00000000 0500000000000000"));
}

TEST(Format, ADeleteAndALargerBlobInOneTransactionOfAnotherId) {
  FreshMachine();
  const OpenedStore store;
  ASSERT_TRUE(store.Commit(1, {"abc"}));
  const std::string large(2000, 'x');
  ASSERT_TRUE(store.Start(-2));
  ASSERT_TRUE(store.Delete("abc"));
  ASSERT_TRUE(store.Store(large));
  ASSERT_TRUE(store.End(7));  // another id than the one it was started with
  const std::string expected =
      JournalBytes()
          .Transaction(1, {StoreRecord(1, "abc")})
          .Transaction(-2, {DeleteRecord(-2, "abc"), StoreRecord(-2, large)}, 7)
          .Bytes();
  EXPECT_EQ(FileBytes("/s/0.jrn"), expected);
}

TEST(Format, APackKeepsTheIdOfEachBlobInOneTransactionOfIdZero) {
  FreshMachine();
  const OpenedStore store(2);
  ASSERT_TRUE(store.Commit(9, {"nine"}));
  ASSERT_TRUE(store.Commit(3, {"three"}));
  ASSERT_TRUE(store.Commit(4, {"gone"}));
  ASSERT_TRUE(store.Start(5) && store.Delete("gone") && store.End(5));
  const std::string before = FileBytes("/s/0.jrn");
  ASSERT_EQ(BCRepack(store.index), 1);
  EXPECT_EQ(
      FileBytes("/s/1.pak"),
      JournalBytes(1, 1).Transaction(0, {StoreRecord(3, "three"), StoreRecord(9, "nine")}).Bytes());
  EXPECT_EQ(FileBytes("/s/1.jrn"), Hex("00040000 00000000 00000000 ffffffff 01000000 18000000"));
  EXPECT_EQ(FileBytes("/s/0.jrn"), before) << "the old generation stays";
}

// Journals of two transactions of one blob each, damaged: how many of them
// survive, and the line that names the fault.
TEST(Format, ADamagedJournalKeepsItsWholeTransactionsAndGoesOnBehindThem) {
  const auto two = [] {
    return JournalBytes()
        .Transaction(1, {StoreRecord(1, "first")})
        .Transaction(2, {StoreRecord(2, "second")});
  };
  const std::string good = two().Bytes();
  const auto second = static_cast<std::uint32_t>(
      JournalBytes().Transaction(1, {StoreRecord(1, "first")}).Bytes().size());
  const struct {
    std::string bytes;
    std::size_t survivors;
    std::string message;
  } rows[] = {
      {With(good, good.size() - 17, "S"), 1,
       "BlobFile::Load (start transaction) corruption, bad hash value id=2 file=/s/0.jrn"},
      {With(good, 24 + 40 + 36, "F"), 0,
       "BlobFile::Load (start transaction) corruption, bad hash value id=1 file=/s/0.jrn"},
      {two().Count(7).Bytes(), 2,
       "BlobFile::Load() didn't process all the entries entries=1 file=/s/0.jrn"},
      {two().Count(0x80000000U).Bytes(), 0,
       "BlobFile::Load() didn't process all the entries entries=-2147483648 file=/s/0.jrn"},
      {good.substr(0, good.size() - 20), 1,
       "BlobFile::Load corruption, header endOffset=219 of a file of 199 bytes file=/s/0.jrn"},
      {two().End(5000).Bytes(), 2,
       "BlobFile::Load corruption, header endOffset=5000 of a file of 219 bytes file=/s/0.jrn"},
      {two().End(23).Bytes(), 2,
       "BlobFile::Load corruption, header endOffset=23 of a file of 219 bytes file=/s/0.jrn"},
      {two()
           .Raw(StartRecord(3, StartRecord(4, "") + EndRecord(4)))
           .Raw(EndRecord(3))
           .Counting(3)
           .Bytes(),
       2, "BlobFile::Load corruption, nested transaction id=4 file=/s/0.jrn"},
      {two().Raw(EndRecord(8)).Counting(1).Bytes(), 2,
       "BlobFile::Load corruption, end transaction without start transaction id=8 file=/s/0.jrn"},
      {two().Raw(OpHeader(4, 0)).Counting(1).Bytes(), 2,
       "BlobFile::Load() unsupported op=4 file=/s/0.jrn"},
      {two().Transaction(3, {OpHeader(-1, 0)}).Bytes(), 2,
       "BlobFile::Load() unsupported op=-1 file=/s/0.jrn"},
      {two().Transaction(3, {}).Bytes(), 2,
       "BlobFile::Load EOF error during validation of transaction.  This is normal for first boot "
       "after a disk wipe, "
       "but no other time."},
      {two()
           .Transaction(3, {OpHeader(0, 3) + std::string(16, 'h') + Hex("ffffff7f") + "x"})
           .Bytes(),
       2, "BlobFile::Load corruption, record runs past its transaction id=3 file=/s/0.jrn"},
      {two().Transaction(3, {StoreRecord(3, "a"), EndRecord(6), StoreRecord(3, "b")}).Bytes(), 2,
       "BlobFile::Load corruption, transaction ends before its length id=6 file=/s/0.jrn"},
      {two()
           .Raw(StartRecord(3, StoreRecord(3, "a")))
           .Raw(StoreRecord(5, "b"))
           .Raw(EndRecord(3))
           .Counting(4)
           .Bytes(),
       2,
       "BlobFile::Load corruption, record outside the digest of its transaction id=5 "
       "file=/s/0.jrn"},
      {two().Raw(OpHeader(0, 3) + std::string(16, 'h') + Hex("ffffffff")).Counting(1).Bytes(), 2,
       "BlobFile::Load corruption, record runs past the end of the file id=3 file=/s/0.jrn"},
      {two().Count(5).End(second).Bytes(), 1,
       "BlobFile::Load() failed to find the end of the transaction (transactions=1 entries=0 "
       "file=/s/0.jrn)"},
      {two().End(second).Bytes(), 2, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.message);
    FreshMachine();
    { const OpenedStore fresh(2); }
    SetFile("/s/0.jrn", row.bytes);
    for (const std::size_t commits :
         {0U, 1U}) {  // what is committed behind the damage is read as well
      sim::Diagnostics().Clear();
      const OpenedStore store(2);
      const std::string trace = sim::Diagnostics().Text();
      EXPECT_EQ(commits == 0 && !row.message.empty(),
                trace.find(row.message + "\n") != std::string::npos)
          << trace;
      EXPECT_EQ(store.All().size(), row.survivors + commits) << trace;
      EXPECT_EQ(store.Has("first"), row.survivors > 0);
      EXPECT_EQ(store.Has("second"), row.survivors > 1);
      EXPECT_EQ(store.Has("after"), commits == 1);
      EXPECT_EQ(BCFsck(store.index), 1);
      EXPECT_TRUE(store.Commit(10, {"after"}));
    }
  }
}

// Cut off at its creation: zeros, or the beginning of a fresh header. Anything
// else so short is refused and left alone.
TEST(Format, AFileThatWasCutOffAtItsCreationIsNewAndNoOther) {
  const struct {
    std::string bytes;
    bool isNew;
  } rows[] = {{"", true},
              {{"\0\4", 2}, true},
              {std::string(23, '\0'), true},
              {std::string(24, '\0'), true},
              {{"\0\5", 2}, false},
              {std::string(23, 'x'), false}};
  for (const auto& row : rows) {
    for (const std::string path : {"/s/0.pak", "/s/0.jrn"}) {
      FreshMachine();
      SetFile(path, row.bytes);
      if (row.isNew) {
        const OpenedStore store;
        EXPECT_TRUE(store.loaded && store.Commit(1, {"a"}));
        EXPECT_EQ(FileBytes(path).size(), path == "/s/0.pak" ? 24U : 24U + 40 + 37 + 16);
        continue;
      }
      const int index = BCInitialize(u"/s");
      try {
        BCAddPackDir(index, u"/s");
        ADD_FAILURE() << "taken for new";
      } catch (const std::runtime_error& e) {
        EXPECT_EQ(e.what(), "File::Read didn't read the entire buffer 24 read " +
                                std::to_string(row.bytes.size()) + " GetLastError 0");
      }
      BCDispose(index);
      EXPECT_EQ(FileBytes(path), row.bytes);
    }
  }
}

TEST(Format, AFileTakesRecordsWithoutATransactionAndAnotherPath) {
  FreshMachine();
  BlobPair blob;
  HashBytes hash = HashOf("abc");
  blob.hash.setHash(hash.data());
  unsigned char data[] = {'a', 'b', 'c'};
  blob.buffer = {data, sizeof data};
  BlobFile file;
  file.Init("/s/other", BlobFile::Journal, 0);
  file.Init("/s/0.jrn", BlobFile::Journal, 0);
  BlobFile::BlobFileEntry entry;
  ASSERT_TRUE(file.Store(entry, blob) && file.UpdateHeader());
  file.file.close();
  EXPECT_EQ(FileBytes("/s/0.jrn"), Hex("00040000 01000000 00000000 00000000 01000000 3f000000"
                                       "00000000 00000000 0000000000000000"
                                       "900150983cd24fb0d6963f7d28e17f72 03000000 616263"));
  EXPECT_TRUE(OpenedStore().Has("abc"));
}

TEST(Format, NothingIsWrittenThroughAHeaderThatNoStoreWrote) {
  FreshMachine();
  const std::string bytes = JournalBytes().Transaction(1, {StoreRecord(1, "a")}).End(3).Bytes();
  SetFile("/s/0.jrn", bytes);
  const int index = BCInitialize(u"/s");
  BCAddPackDir(index, u"/s");
  HashBytes hash = HashOf("b");
  unsigned char data[] = {'b'};
  EXPECT_EQ(BCStore(index, hash.data(), data, 1), 0);
  BCDispose(index);
  EXPECT_EQ(FileBytes("/s/0.jrn"), bytes);
}

}  // namespace
}  // namespace test
