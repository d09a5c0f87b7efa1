// The bytes on disk, written by hand here, and what a load makes of bytes that no store wrote.
#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>

#include "tests/support/JournalBytes.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

TEST(Format, TheFilesOfAStoreFromItsFirstByteToItsFirstRepack) {
  FreshMachine();
  const OpenedStore store(2);
  for (const char* slot : {"/s/0", "/s/1"}) {
    const std::string rest = " 00000000 01000000 18000000", path = slot;
    EXPECT_EQ(FileBytes(path + ".pak"), Hex("00040000 00000000 01000000" + rest));
    EXPECT_EQ(FileBytes(path + ".jrn"), Hex("00040000 00000000 00000000" + rest));
  }
  ASSERT_TRUE(store.Commit(5, {"abc"}));
  EXPECT_EQ(FileBytes("/s/0.jrn"), Hex("00040000 03000000 00000000 00000000 01000000 77000000"
                                       "02000000 00000000 0500000000000000"
                                       "03000000 27000000 a8bae5c961c45b9db2f338fe4956f56f"
                                       "00000000 00000000 0500000000000000"
                                       "900150983cd24fb0d6963f7d28e17f72 03000000 616263"
                                       "03000000 00000000 0500000000000000"));
  const std::string large(2000, 'x');
  ASSERT_TRUE(store.Start(-2) && store.Delete("abc") && store.Store(large) && store.End(7));
  ASSERT_TRUE(store.Commit(3, {"three"}));
  ASSERT_TRUE(store.Commit(-9, {"nine"}));
  const std::string journal = FileBytes("/s/0.jrn");
  EXPECT_EQ(journal, JournalBytes()
                         .Transaction(5, {StoreRecord(5, "abc")})
                         .Transaction(-2, {DeleteRecord(-2, "abc"), StoreRecord(-2, large)}, 7)
                         .Transaction(3, {StoreRecord(3, "three")})
                         .Transaction(-9, {StoreRecord(-9, "nine")})
                         .Bytes());
  ASSERT_EQ(BCRepack(store.index), 1);
  const std::vector<std::string> blobs = {StoreRecord(-9, "nine"), StoreRecord(-2, large),
                                          StoreRecord(3, "three")};
  EXPECT_EQ(FileBytes("/s/1.pak"), JournalBytes(1, 1).Transaction(0, blobs).Bytes());
  EXPECT_EQ(FileBytes("/s/1.jrn"), Hex("00040000 00000000 00000000 ffffffff 01000000 18000000"));
  EXPECT_EQ(FileBytes("/s/0.jrn"), journal) << "the old generation stays";
}

// Journals of two transactions of one blob each, damaged: how many of them survive, and the line
// that names the fault. The rest of the faults is left to the fuzzer.
TEST(Format, ADamagedJournalKeepsItsWholeTransactionsAndNamesTheFault) {
  const auto two = [] {
    return JournalBytes()
        .Transaction(1, {StoreRecord(1, "first")})
        .Transaction(2, {StoreRecord(2, "second")});
  };
  const std::string good = two().Bytes();
  const std::uint32_t first = 24 + 40 + 36 + 5 + 16;
  const std::string head = OpHeader(0, 3) + std::string(16, 'h');
  const struct {
    std::string bytes;
    std::size_t survivors;
    std::string text;
  } rows[] = {
      {With(good, first + 76, "S"), 1,
       " (start transaction) corruption, bad hash value id=2 file=/s/0.jrn"},
      {two().Count(7).Bytes(), 2, "() didn't process all the entries entries=1"},
      {good.substr(0, 199), 1, " corruption, header endOffset=219 of a file of 199 bytes"},
      {two().Raw(EndRecord(8)).Counting(1).Bytes(), 2,
       " corruption, end transaction without start transaction id=8"},
      {two().Raw(OpHeader(4, 0)).Counting(1).Bytes(), 2, "() unsupported op=4"},
      {two().Transaction(3, {}).Bytes(), 2,
       " EOF error during validation of transaction.  This is normal for first boot after a disk "
       "wipe, but no other time."},
      {two().Transaction(3, {head + Hex("ffffff7f") + "x"}).Bytes(), 2,
       " corruption, record runs past its transaction id=3"},
      {two().End(first).Bytes(), 2, ""},
      {With(good, 0, std::string(24, 'A')), 2,
       " corruption, header endOffset=1094795585 of a file"},
  };
  for (const auto& row : rows) {
    FreshMachine();
    SetFile("/s/0.jrn", row.bytes);
    std::optional<OpenedStore> opened(std::in_place, 1);
    const OpenedStore& store = *opened;
    const std::string trace = sim::Diagnostics().Text(), text = "BlobFile::Load" + row.text;
    EXPECT_EQ(trace.find(text) != std::string::npos, !row.text.empty()) << text << trace;
    EXPECT_EQ(store.All().size(), row.survivors) << text;
    EXPECT_TRUE(store.Has("first") && store.Commit(10, {"after"})) << text;
    opened.reset();
    const OpenedStore again(1, OpenedStore::Policy::Keep);
    EXPECT_EQ(StatisticsOf(again.index).damaged, 0) << "put right, and said again: " << text;
  }
}

// Unless it was cut off at its creation: zeros, or the beginning of a fresh header.
TEST(Format, AFileThatIsTooShortIsRefusedAndLeftAlone) {
  FreshMachine();
  const std::string bytes("\0\5", 2);
  SetFile("/s/0.jrn", bytes);
  EXPECT_THROW(OpenedStore(), std::runtime_error);
  EXPECT_EQ(FileBytes("/s/0.jrn"), bytes);
}

}  // namespace
}  // namespace test
