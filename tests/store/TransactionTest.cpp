// What a transaction shows while it is open, and what it leaves.
#include <gtest/gtest.h>

#include "tests/support/JournalBytes.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

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

}  // namespace
}  // namespace test
