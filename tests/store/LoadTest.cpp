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

TEST(Load, ErasesAStoreWithoutAUsablePackUnlessItIsToKeepIt) {
  const std::string pack = With(PackOf(0, "packed"), 24 + 40 + 36, "X");
  const std::string journal = JournalBytes().Transaction(2, {StoreRecord(2, "journalled")}).Bytes();
  for (const Policy policy : {Policy::Erase, Policy::Keep}) {
    FreshMachine();
    SetFile("/s/0.pak", pack);
    SetFile("/s/0.jrn", journal);
    SetFile("/s/0.pak.kept-1", "kept earlier");
    const OpenedStore store(1, policy);
    EXPECT_TRUE(store.All().empty());
    EXPECT_EQ(FileBytes("/s/0.pak.kept-1"), "kept earlier");
    EXPECT_EQ(store.loaded, policy == Policy::Keep);
    EXPECT_EQ(store.Commit(1, {"fresh"}), policy == Policy::Keep);
    if (policy == Policy::Erase) {
      EXPECT_TRUE(Diagnostics().HasWarning("BlobController::Load invalid Pack file 0 /s/0.pak"));
      EXPECT_TRUE(Diagnostics().HasError(
          "BlobController::Load no valid Pak files, reseting all files.  All data is lost"));
      EXPECT_TRUE(Diagnostics().HasError("BlobController::DeleteFiles() was successful."));
      EXPECT_FALSE(Exists("/s/0.pak") || Exists("/s/0.jrn"));
      continue;
    }
    EXPECT_EQ(FileBytes("/s/0.pak.kept-2"), pack);
    EXPECT_EQ(FileBytes("/s/0.jrn.kept-1"), journal);
    EXPECT_TRUE(Diagnostics().HasError("BlobController::Load /s/0.pak is kept as /s/0.pak.kept-2"));
  }
}

// The damage is in the journal or in its copy, whichever flush fails.
TEST(Load, ADamagedJournalIsRepairedOnlyOnceItsCopyIsOnDisk) {
  const std::string whole = JournalBytes().Transaction(2, {StoreRecord(2, "good")}).Bytes();
  const std::string damage =
      With(StartRecord(3, StoreRecord(3, "bad")), 30, "X") + EndRecord(3) + EndRecord(4);
  const std::string journal =
      JournalBytes().Transaction(2, {StoreRecord(2, "good")}).Raw(damage).Counting(4).Bytes();
  bool failed = true;
  for (std::uint64_t n = 1; failed; ++n) {
    FreshMachine();
    SetFile("/s/0.pak", PackOf(0, "packed"));
    SetFile("/s/0.jrn", journal);
    sim::Files().FailCallOf(sim::Call::FlushFileBuffers, n, sim::Fault::Error);
    { const OpenedStore store(1, Policy::Keep); }
    failed = sim::Files().fired() > 0;
    sim::Files().Heal();
    sim::Files().CutPower();
    sim::Files().Restart();
    const std::string copy = Exists("/s/0.jrn.kept-1") ? FileBytes("/s/0.jrn.kept-1") : "";
    EXPECT_TRUE(FileBytes("/s/0.jrn") == journal || copy == journal.substr(0, 24) + damage)
        << "flush " << n;
    EXPECT_TRUE(OpenedStore(1, Policy::Keep).Has("good"));
  }
}

// The newest pack is cut to nothing or zeroed: its journal shows that it was
// there, whether or not it took a commit in the session of the repack.
TEST(Load, ALostNewestPackIsDamageAndNoRepackEmptiesItsSlotWithoutACopy) {
  for (const std::size_t length : {0U, 23U, 24U, 100U}) {
    for (const bool reopened : {false, true}) {
      SCOPED_TRACE(testing::Message() << length << (reopened ? ", reopened" : ""));
      FreshMachine();
      {
        std::optional<OpenedStore> store(std::in_place, 2, Policy::Keep);
        ASSERT_TRUE(store->Commit(1, {"old"}) && BCRepack(store->index) == 1);
        if (reopened) {
          store.reset();
          store.emplace(2, Policy::Keep);
        }
        ASSERT_TRUE(store->Commit(2, {"new"}));
      }
      SetFile("/s/1.pak", std::string(length, '\0'));
      const OpenedStore store(2, Policy::Keep);
      BCStatistics statistics{};
      statistics.size = sizeof statistics;
      ASSERT_EQ(BCGetStatistics(store.index, &statistics), 1);
      EXPECT_EQ(statistics.damaged, 1);
      const std::string journal = FileBytes("/s/1.jrn");
      EXPECT_TRUE(store.Has("old"));
      ASSERT_EQ(BCRepack(store.index), 1);
      EXPECT_EQ(FileBytes("/s/1.jrn.kept-1"), journal);
    }
  }
}

// A crash between two moves is a move that fails: no journal is ever left for a
// fresh pack to be read with.
TEST(Load, MovesJournalsAsideBeforePacks) {
  FreshMachine();
  SetFile("/s/0.pak", With(PackOf(0, "packed"), 24 + 40 + 36, "X"));
  const std::string journal = JournalBytes().Transaction(2, {StoreRecord(2, "journalled")}).Bytes();
  SetFile("/s/0.jrn", journal);
  sim::Files().FailCallOf(sim::Call::MoveFile, 2, sim::Fault::Error);
  EXPECT_FALSE(OpenedStore(1, Policy::Keep).loaded);
  sim::Files().Heal();
  EXPECT_TRUE(OpenedStore(1, Policy::Keep).All().empty());
  EXPECT_EQ(FileBytes("/s/0.jrn.kept-1"), journal);
}

// Of three transactions one is not whole. The last was torn by a power failure, for
// all that the file can tell; any other is damage, even where its start is lost.
TEST(Load, OnlyATornLastTransactionIsNoDamage) {
  const auto journal = [](int count) {
    JournalBytes bytes;
    for (int id = 1; id <= count; ++id)
      bytes.Transaction(id, {StoreRecord(id, "blob" + std::to_string(id))});
    return bytes.Bytes();
  };
  const std::string good = journal(3);
  for (const int torn : {2, 3}) {
    const std::size_t start = journal(torn - 1).size();
    for (const std::string& bytes :
         {With(good, start, std::string(40, '\0')), With(good, start, "\5"),
          With(good, start + 16, std::string(24, '\0')), With(good, start + 80, "X")}) {
      FreshMachine();
      SetFile("/s/0.jrn", bytes);
      const OpenedStore store(1, Policy::Keep);
      SCOPED_TRACE(Diagnostics().Text());
      BCStatistics statistics{};
      statistics.size = sizeof statistics;
      ASSERT_EQ(BCGetStatistics(store.index, &statistics), 1);
      EXPECT_EQ(statistics.damaged, torn == 2);
      EXPECT_EQ(store.All().size(), static_cast<std::size_t>(torn - 1));
      EXPECT_EQ(FileBytes("/s/0.jrn.kept-1"), bytes.substr(0, 24) + bytes.substr(start));
      EXPECT_TRUE(store.Commit(9, {"after"}));
    }
  }
}

}  // namespace
}  // namespace test
