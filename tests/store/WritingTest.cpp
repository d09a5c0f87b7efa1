// What a store writes, byte by byte, what it flushes and what it leaves of a failure. What a load
// makes of other bytes is left to the fuzzer.
#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>

#include "tests/support/JournalBytes.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using sim::Call;
using sim::Fault;

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

// Unless it was cut off at its creation: zeros, or the beginning of a fresh header.
TEST(Format, AFileThatIsTooShortIsRefusedAndLeftAlone) {
  FreshMachine();
  const std::string bytes("\0\5", 2);
  SetFile("/s/0.jrn", bytes);
  EXPECT_THROW(OpenedStore(), std::runtime_error);
  EXPECT_EQ(FileBytes("/s/0.jrn"), bytes);
}

// From the 33rd commit on a journal has zeros ahead of it, new or used again; a close cuts them
// off. A commit over anything else flushes its records as well as its header.
TEST(Transaction, ACommitFlushesTwiceUntilTheJournalHasBlankSpaceAhead) {
  FreshMachine();
  std::optional<OpenedStore> opened(std::in_place, 2);
  const OpenedStore& store = *opened;
  const auto flushes = [&](const std::string& blob) {
    const std::uint64_t before = sim::Files().calls(Call::FlushFileBuffers);
    EXPECT_TRUE(store.Store(blob) && store.End(1));
    return sim::Files().calls(Call::FlushFileBuffers) - before;
  };
  for (const char* life : {"new", "used again"}) {
    for (int n = 1; n <= 3000; ++n) {
      SCOPED_TRACE(testing::Message() << life << ' ' << n);
      ASSERT_EQ(flushes(life + std::to_string(n)), n <= 33 ? 2U : 1U);
    }
    ASSERT_EQ(BCRepack(store.index) + BCRepack(store.index), 2);
    ASSERT_TRUE(store.Start(1) && store.Store("first, abandoned") && store.Start(1));
  }
  for (int n = 1; n <= 40; ++n) flushes("small" + std::to_string(n));
  EXPECT_EQ(flushes("new1"), 0U) << "the store has it";
  ASSERT_TRUE(store.Start(1) && store.Store("abandoned") && store.Start(1));
  EXPECT_EQ(flushes("over an abandoned transaction"), 2U);
  EXPECT_EQ(flushes("behind it"), 1U);
  sim::Files().FailCallOf(Call::WriteFile, 2, Fault::Partial);
  ASSERT_TRUE(store.Store("whole") && !store.Store(std::string(600000, 'L')));
  EXPECT_EQ(flushes("over what a failed write has left"), 2U);
  EXPECT_EQ(flushes("behind it again"), 1U);
  const std::string large(600'000, 'L');
  ASSERT_TRUE(store.Store("in the blank space"));
  ASSERT_EQ(StoreInPieces(store.index, large, large.substr(1)), 0);
  EXPECT_EQ(FileBytes("/s/0.jrn").size(), StatisticsOf(store.index).journalBytes) << "cut off";
  EXPECT_EQ(flushes("over what a source that failed has left"), 2U);
  EXPECT_EQ(flushes("behind it once more"), 1U);
  ASSERT_TRUE(store.Store("first try"));
  sim::Files().FailCallOf(Call::WriteFile, 3, Fault::Error);  // of the header
  ASSERT_FALSE(store.End(1));
  EXPECT_EQ(flushes("over what a failed commit has left"), 2U);
  const std::uint64_t records = StatisticsOf(store.index).journalBytes;
  EXPECT_GT(FileBytes("/s/0.jrn").size(), records);
  opened.reset();
  EXPECT_EQ(FileBytes("/s/0.jrn").size(), records);
  opened.emplace(2);
  ASSERT_TRUE(opened->Store(std::string(600000, 'L')));
  opened.reset();
  EXPECT_EQ(FileBytes("/s/0.jrn").size(), records) << "what was not committed is cut off, too";
  EXPECT_EQ(FileBytes("/s/0.jrn")[12], 4) << "the sequence of its pack";
  SetFile("/s/0.jrn", FileBytes("/s/0.jrn") + "left by a process that was killed");
  ASSERT_EQ(BCRepack(OpenedStore(2).index), 1);
  EXPECT_EQ(FileBytes("/s/0.jrn").size(), records) << "the older generation is cut as well";
}

}  // namespace
}  // namespace test
