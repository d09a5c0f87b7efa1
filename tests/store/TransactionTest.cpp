// What a transaction shows while it is open, and what it leaves.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "tests/support/JournalBytes.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

TEST(Transaction, PendingChangesAreKnownButNotReadable) {
  FreshMachine();
  const OpenedStore store;
  ASSERT_TRUE(store.Commit(1, {"old"}));
  ASSERT_TRUE(store.Start(2));
  ASSERT_TRUE(store.Store("new"));
  ASSERT_TRUE(store.Delete("old"));
  EXPECT_FALSE(store.Get("new"));
  EXPECT_TRUE(store.Has("old"));
  EXPECT_TRUE(store.Store("new")) << "known already";
  ASSERT_TRUE(store.End(2));
  EXPECT_TRUE(store.Has("new"));
  EXPECT_FALSE(store.Get("old"));
}

TEST(Transaction, ChangesOfNothingWriteNothing) {
  FreshMachine();
  const OpenedStore store;
  ASSERT_TRUE(store.Commit(1, {"a"}));
  const std::string before = FileBytes("/s/0.jrn");
  const std::uint64_t writes = sim::Files().calls(sim::Call::WriteFile);
  ASSERT_TRUE(store.Start(2) && store.End(2));
  ASSERT_TRUE(store.Start(3) && store.Store("a") && store.Delete("never stored") && store.End(3));
  EXPECT_EQ(sim::Files().calls(sim::Call::WriteFile), writes);
  EXPECT_EQ(FileBytes("/s/0.jrn"), before);
}

TEST(Transaction, TheLastChangeToAHashDecides) {
  const struct {
    const char* ops;  // S store, D delete
    bool committedBefore, present;
    std::size_t records;
  } rows[] = {
      {"S", false, true, 1},   {"SD", false, false, 2}, {"SDS", false, true, 3},
      {"D", true, false, 1},   {"DS", true, true, 2},   {"DSD", true, false, 3},
      {"DSDS", true, true, 4}, {"SS", false, true, 1},  {"DD", true, false, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.ops);
    FreshMachine();
    std::size_t before = 0;
    {
      const OpenedStore store;
      ASSERT_TRUE(store.Commit(1, {"other"}));
      if (row.committedBefore) {
        ASSERT_TRUE(store.Commit(2, {"blob"}));
      }
      before = FileBytes("/s/0.jrn").size();
      ASSERT_TRUE(store.Start(3));
      std::size_t bytes = 56;
      for (const char* op = row.ops; *op != '\0'; ++op)
        ASSERT_TRUE(*op == 'S' ? store.Store("blob") : store.Delete("blob"));
      for (std::size_t r = 0; r < row.records; ++r) bytes += (row.ops[r] == 'S') ? 40 : 32;
      ASSERT_TRUE(store.End(3));
      EXPECT_EQ(store.Has("blob"), row.present);
      EXPECT_EQ(FileBytes("/s/0.jrn").size(), before + bytes);
    }
    const OpenedStore again;
    EXPECT_EQ(again.Has("blob"), row.present);
    EXPECT_TRUE(again.Has("other"));
  }
}

TEST(Transaction, StartingAnotherAbandonsWhatIsPending) {
  for (const bool byLoad : {false, true}) {
    FreshMachine();
    {
      const OpenedStore store;
      ASSERT_TRUE(store.Commit(1, {"kept"}));
      ASSERT_TRUE(store.Start(2) && store.Store("abandoned") && store.Delete("kept"));
      // Long enough to have reached the file already.
      ASSERT_TRUE(store.Store(std::string(700000, 'x')));
      if (byLoad) {
        ASSERT_EQ(BCLoad(store.index), 1);
      } else {
        ASSERT_TRUE(store.Start(3));
      }
      EXPECT_TRUE(store.Has("kept"));
      ASSERT_TRUE(store.Store("after"));
      ASSERT_TRUE(store.End(3));
      ASSERT_TRUE(store.Commit(4, {"later"}));
    }
    const OpenedStore again;
    EXPECT_EQ(again.All().size(), 3U);
    EXPECT_TRUE(again.Has("kept") && again.Has("after") && again.Has("later"));
    EXPECT_FALSE(sim::Diagnostics().HasWarning("BlobController::Load journal file corrupt /s/0.jrn"));
  }
}

TEST(Transaction, AChangeBeforeTheLoadGoesToTheFirstJournal) {
  FreshMachine();
  {
    const int index = BCInitialize(u"/s");
    BCAddPackDir(index, u"/s");
    HashBytes hash = HashOf("early");
    std::string data = "early";
    EXPECT_EQ(BCStore(index, hash.data(), reinterpret_cast<unsigned char*>(data.data()), 5), 1);
    const long long id = 1;
    EXPECT_EQ(BCEndTransaction(index, &id), 1);
    BCDispose(index);
  }
  const OpenedStore store;
  EXPECT_TRUE(store.Has("early"));
}

// Random operations against a model, with everything that closes, opens and
// compacts a store in between.
TEST(Transaction, AgreesWithAModelOverRandomOperations) {
  for (unsigned seed = 1; seed <= 30; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    FreshMachine();
    sim::Diagnostics().Record(false);
    std::mt19937 random(seed);
    const int slots = 1 + static_cast<int>(seed % 3);
    std::map<std::string, bool> committed, pending;
    auto store = std::make_unique<OpenedStore>(slots);
    store->Start(1);
    for (int step = 0; step < 300; ++step) {
      std::string blob(random() % 5 == 0 ? random() % 3000 : random() % 30, 'b');
      blob += std::to_string(random() % 40);
      switch (random() % 12) {
        case 0:
          ASSERT_TRUE(store->End(step));
          committed = pending;
          break;
        case 1:
          ASSERT_TRUE(store->Start(step));
          pending = committed;
          break;
        case 2:
          store.reset();
          store = std::make_unique<OpenedStore>(slots);
          ASSERT_TRUE(store->loaded);
          pending = committed;
          break;
        case 3:
          ASSERT_TRUE(store->End(step));
          committed = pending;
          ASSERT_EQ(BCRepack(store->index), 1);
          break;
        case 4:
        case 5:
          ASSERT_TRUE(store->Delete(blob));
          pending.erase(blob);
          break;
        default:
          ASSERT_TRUE(store->Store(blob));
          pending[blob] = true;
      }
      if (step % 20 != 0) continue;
      ASSERT_EQ(store->All().size(), committed.size());
      for (const auto& [content, unused] : committed) ASSERT_TRUE(store->Has(content));
      ASSERT_EQ(BCFsck(store->index), 1);
    }
  }
}

}  // namespace
}  // namespace test
