// Which generation a load takes, and what it does with files it cannot read.
#include <gtest/gtest.h>

#include "tests/support/JournalBytes.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using Policy = OpenedStore::Policy;
using sim::Diagnostics;

bool Exists(const std::string& path) {
  return sim::Files().disk.Lookup(path) != sim::kNoInode;
}

std::string PackOf(std::int32_t sequence, std::string_view data) {
  return JournalBytes(1, sequence).Transaction(0, {StoreRecord(1, data)}).Bytes();
}

TEST(Load, TakesTheNewestPackThatReadsAndTheJournalOfItsSequence) {
  const struct {
    const char* name;
    std::string pack0, pack1;
    const char* loadedPack;  // what is in it
    int journal;
  } rows[] = {
      {"the higher sequence", PackOf(4, "zero"), PackOf(3, "one"), "zero", 0},
      {"the higher sequence in the other slot", PackOf(4, "zero"), PackOf(5, "one"), "one", 1},
      {"equal sequences in slot order", PackOf(0, "zero"), PackOf(0, "one"), "zero", 0},
      {"a damaged one is passed over", PackOf(4, "zero"), With(PackOf(5, "one"), 24 + 40 + 36, "X"), "zero", 0},
      {"an emptied one does not count", PackOf(4, "zero"), PackOf(-1, "one"), "zero", 0},
      {"a signed sequence below", PackOf(-7, "zero"), PackOf(1, "one"), "one", 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FreshMachine();
    SetFile("/s/0.pak", row.pack0);
    SetFile("/s/1.pak", row.pack1);
    for (const char* slot : {"0", "1"})
      SetFile(std::string("/s/") + slot + ".jrn",
              JournalBytes().Transaction(2, {StoreRecord(2, std::string("journal ") + slot)}).Bytes());
    const OpenedStore store(2);
    ASSERT_TRUE(store.loaded);
    EXPECT_EQ(store.All().size(), 2U);
    EXPECT_TRUE(store.Has(row.loadedPack));
    EXPECT_TRUE(store.Has("journal " + std::to_string(row.journal)));
  }
}

TEST(Load, TheJournalSupersedesThePack) {
  FreshMachine();
  SetFile("/s/0.pak", JournalBytes(1, 0).Transaction(0, {StoreRecord(1, "a"), StoreRecord(1, "b")}).Bytes());
  SetFile("/s/0.jrn", JournalBytes()
                          .Transaction(2, {DeleteRecord(2, "a"), StoreRecord(2, "b"), DeleteRecord(2, "never")})
                          .Raw(StoreRecord(3, "lone"))
                          .Counting(1)
                          .Bytes());
  const OpenedStore store;
  EXPECT_EQ(store.All().size(), 2U);
  EXPECT_FALSE(store.Get("a"));
  EXPECT_TRUE(store.Has("b") && store.Has("lone"));
  // From the journal: a change to the pack under the store is not seen.
  sim::Disk& disk = sim::Files().disk;
  disk.Write(disk.Lookup("/s/0.pak"), 24 + 40 + 37 + 36, "X", 1);
  EXPECT_TRUE(store.Has("b"));

  SetFile("/s/0.jrn", JournalBytes().Bytes());
  SetFile("/s/0.pak", JournalBytes(1, 0).Transaction(0, {StoreRecord(1, "other")}).Bytes());
  ASSERT_EQ(BCLoad(store.index), 1);
  EXPECT_EQ(store.All(), std::vector<std::string>{"other"}) << "a second load forgets what is gone";
}

TEST(Load, ErasesAStoreWithoutAUsablePackUnlessItIsToKeepIt) {
  const std::string emptied = JournalBytes(1, -1).Bytes();
  const struct {
    const char* name;
    std::string pack;
  } rows[] = {
      {"damaged", With(PackOf(0, "packed"), 24 + 40 + 36, "X")},
      {"emptied", emptied},
      {"emptied, with records", PackOf(-1, "packed")},
      {"ends inside a transaction", PackOf(0, "packed").substr(0, 80)},
  };
  for (const auto& row : rows) {
    for (const Policy policy : {Policy::Erase, Policy::Keep}) {
      SCOPED_TRACE(std::string(row.name) + (policy == Policy::Keep ? ", keep" : ", erase"));
      FreshMachine();
      const std::string journal = JournalBytes().Transaction(2, {StoreRecord(2, "journalled")}).Bytes();
      SetFile("/s/0.pak", row.pack);
      SetFile("/s/0.jrn", journal);
      SetFile("/s/0.pak.kept-1", "kept earlier");
      const OpenedStore store(1, policy);
      EXPECT_TRUE(store.All().empty());
      if (policy == Policy::Erase) {
        EXPECT_FALSE(store.loaded);
        EXPECT_FALSE(Exists("/s/0.pak"));
        EXPECT_FALSE(Exists("/s/0.jrn"));
        EXPECT_TRUE(Diagnostics().HasError("BlobController::DeleteFiles() was successful."));
        EXPECT_FALSE(store.Store("x"));
        continue;
      }
      ASSERT_TRUE(store.loaded) << Diagnostics().Text();
      EXPECT_EQ(FileBytes("/s/0.pak.kept-1"), "kept earlier");
      EXPECT_EQ(FileBytes("/s/0.pak.kept-2"), row.pack);
      EXPECT_EQ(FileBytes("/s/0.jrn.kept-1"), journal);
      EXPECT_TRUE(Diagnostics().HasError("BlobController::Load /s/0.pak is kept as /s/0.pak.kept-2"));
      EXPECT_TRUE(store.Commit(1, {"fresh"}));
    }
  }
}

TEST(Load, KeepsACopyOfADamagedJournalAndOfWhatARepackWouldOverwrite) {
  FreshMachine();
  const std::string newest = With(PackOf(1, "newest"), 24 + 40 + 36, "X");
  const std::string itsJournal = JournalBytes().Transaction(5, {StoreRecord(5, "journalled")}).Bytes();
  const std::string damaged =
      JournalBytes().Transaction(2, {StoreRecord(2, "good")}).Transaction(3, {StoreRecord(3, "bad")}).Bytes();
  SetFile("/s/0.pak", PackOf(0, "older"));
  SetFile("/s/1.pak", newest);
  SetFile("/s/1.jrn", itsJournal);
  SetFile("/s/0.jrn", With(damaged, damaged.size() - 17, "X"));
  const OpenedStore store(2, Policy::Keep);
  ASSERT_TRUE(store.loaded);
  EXPECT_TRUE(store.Has("older") && store.Has("good"));
  const std::size_t good = JournalBytes().Transaction(2, {StoreRecord(2, "good")}).Bytes().size();
  EXPECT_EQ(FileBytes("/s/0.jrn.kept-1"), damaged.substr(0, 24) + With(damaged, damaged.size() - 17, "X").substr(good));
  EXPECT_EQ(FileBytes("/s/1.pak"), newest);
  ASSERT_EQ(BCRepack(store.index), 1);
  EXPECT_EQ(FileBytes("/s/1.pak.kept-1"), newest);
  EXPECT_EQ(FileBytes("/s/1.jrn.kept-1"), itsJournal);
}

TEST(Load, APassingFailureLeavesEveryFileUnderKeepAndErasesOtherwise) {
  for (const Policy policy : {Policy::Erase, Policy::Keep}) {
    sim::SimFiles& files = FreshMachine();
    const std::string pack = PackOf(0, "packed");
    SetFile("/s/0.pak", pack);
    const int index = BCInitialize(u"/s");
    BCAddPackDir(index, u"/s");
    if (policy == Policy::Keep) BCSetDamagePolicy(index, BLOBRING_DAMAGE_KEEP);
    files.FailCallOf(sim::Call::ReadFile, 2, sim::Fault::Error);
    EXPECT_EQ(BCLoad(index), 0);
    EXPECT_EQ(Exists("/s/0.pak"), policy == Policy::Keep);
    if (policy == Policy::Keep) {
      EXPECT_EQ(FileBytes("/s/0.pak"), pack);
      HashBytes hash = HashOf("x");
      unsigned char data[] = {'x'};
      EXPECT_EQ(BCStore(index, hash.data(), data, 1), 0) << "no change until a load succeeds";
      EXPECT_EQ(BCLoad(index), 1);
      EXPECT_EQ(BCStore(index, hash.data(), data, 1), 1);
    }
    BCDispose(index);
  }
}

TEST(Load, OfAClosedStoreErasesOrKeeps) {
  for (const Policy policy : {Policy::Erase, Policy::Keep}) {
    FreshMachine();
    const OpenedStore store(1, policy);
    ASSERT_TRUE(store.Commit(1, {"a"}));
    BCShutdown(store.index, true);
    EXPECT_EQ(BCLoad(store.index), 0);
    EXPECT_EQ(Exists("/s/0.jrn"), policy == Policy::Keep);
  }
}

TEST(Load, WithoutASlotFails) {
  FreshMachine();
  const OpenedStore store(0);
  EXPECT_FALSE(store.loaded);
  EXPECT_TRUE(Diagnostics().HasError("BlobController::Load no valid Pak files, reseting all files.  All data is lost"));
}

}  // namespace
}  // namespace test
