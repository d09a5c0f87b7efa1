// The C++ wrapper, as a program uses it.
#include <blobring/Store.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ranges>
#include <set>
#include <type_traits>
#include <unordered_set>

#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using blobring::Hash;
using blobring::Store;
using blobring::Transaction;

std::span<const std::byte> Bytes(std::string_view text) {
  return std::as_bytes(std::span(text));
}

std::string Text(const std::optional<std::vector<std::byte>>& data) {
  return data ? std::string(reinterpret_cast<const char*>(data->data()), data->size()) : "absent";
}

// What an operation fails with.
template <class Operation>
std::string ErrorOf(Operation operation) {
  try {
    operation();
  } catch (const blobring::Error& e) {
    return e.what();
  }
  return "none";
}

// RFC 1321, A.5.
TEST(Hash, ReadsAndWritesThirtyTwoDigits) {
  const Hash abc = Hash::of(Bytes("abc"));
  EXPECT_EQ(abc.text(), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(Hash::parse("900150983CD24FB0D6963F7D28E17F72"), abc);
  EXPECT_EQ(Hash().text(), std::string(32, '0'));
  for (const char* wrong :
       {"", "900150983cd24fb0d6963f7d28e17f7", "900150983cd24fb0d6963f7d28e17f722",
        "g00150983cd24fb0d6963f7d28e17f72", "900150983cd24fb0d6963f7d28e17f7 "})
    EXPECT_FALSE(Hash::parse(wrong)) << wrong;
  EXPECT_LT(*Hash::parse("7f" + std::string(30, 'f')), *Hash::parse("80" + std::string(30, '0')));
  EXPECT_EQ((std::unordered_set<Hash>{abc, abc, Hash()}).size(), 2U);
}

static_assert(!std::is_copy_constructible_v<Store> && std::is_nothrow_move_constructible_v<Store>);
static_assert(std::forward_iterator<Store::HashIterator> &&
              std::ranges::forward_range<Store::HashRange>);

TEST(Store, KeepsWhatWasCommittedAndAbandonsTheRest) {
  FreshMachine();
  Hash kept;
  Hash alone;
  {
    Store store("/s");
    {
      Transaction change(store, 5);
      kept = store.put("kept");
      change.commit();
      EXPECT_NE(ErrorOf([&] { change.commit(); }), "none");
    }
    {
      const Transaction change(store);
      store.put("abandoned");
      store.erase(kept);
    }
    EXPECT_TRUE(store.repack()) << "nothing is pending";
    alone = store.put("on its own");
    EXPECT_EQ(alone, Hash::of(Bytes("on its own")));
    store.erase(store.put("gone"));
  }
  const Store store("/s");
  EXPECT_EQ(Text(store.get(kept)), "kept");
  EXPECT_EQ(store.size(alone), 10U);
  EXPECT_TRUE(store.contains(alone));
  EXPECT_EQ(Text(store.get(Hash::of(Bytes("abandoned")))), "absent");
  EXPECT_FALSE(store.contains(Hash::of(Bytes("gone"))));
  EXPECT_EQ(store.stats().blobCount, 2U);
}

TEST(Store, ReadsIntoTheCallersBuffer) {
  FreshMachine();
  Store store("/s");
  const Hash hash = store.put("12345");
  std::array<std::byte, 8> room{};
  EXPECT_EQ(store.get(hash, room), 5U);
  EXPECT_EQ(room[4], std::byte{'5'});
  EXPECT_EQ(room[5], std::byte{0});
  EXPECT_EQ(store.get(hash, std::span(room).first(4)), 5U) << "wants more room";
  EXPECT_EQ(store.get(Hash(), room), std::nullopt);
  EXPECT_EQ(Text(store.get(store.put(""))), "");
  EXPECT_TRUE(sim::Diagnostics().raised.empty());
}

TEST(Store, MovesWithItsOpenTransaction) {
  FreshMachine();
  std::optional<Store> first(std::in_place, "/s");
  Transaction change(*first);
  const Hash hash = first->put("moved");
  Store second = std::move(*first);
  first.reset();
  change.commit();
  EXPECT_TRUE(second.contains(hash));
  second = Store(std::move(second));
  Transaction other(second);
  second.put("lost");
  EXPECT_EQ(ErrorOf([&] { const Transaction nested(second); }),
            "blobring: begin: a transaction is open already");
  second.close();
  EXPECT_NE(ErrorOf([&] { other.commit(); }), "none");
  EXPECT_NE(ErrorOf([&] { second.put("x"); }), "none");
  EXPECT_NE(ErrorOf([&] { static_cast<void>(second.contains(hash)); }), "none");
}

TEST(Store, EnumeratesInOrderWhileBlobsGo) {
  FreshMachine();
  Store store("/s");
  std::set<Hash> expected;
  {
    Transaction change(store);
    for (int i = 0; i < 50; ++i) expected.insert(store.put("blob " + std::to_string(i)));
    change.commit();
  }
  EXPECT_TRUE(std::ranges::equal(store.hashes(), expected));
  std::vector<Hash> seen;
  for (const Hash& hash : store.hashes()) {
    seen.push_back(hash);
    store.erase(hash);
  }
  EXPECT_TRUE(std::ranges::equal(seen, expected));
  EXPECT_TRUE(std::ranges::empty(store.hashes()));
  EXPECT_EQ(BCNextHash(store.index(), nullptr, nullptr), -1);
}

TEST(Store, FailsWithTheStoresOwnWords) {
  FreshMachine();
  EXPECT_EQ(
      ErrorOf([] { Store("/nowhere"); }),
      "blobring: open /nowhere: FileSystem::CreateFile error /nowhere/0.pak GetLastError code= 3\n"
      "BCOpen threw an exception:FileSystem::CreateFile error /nowhere/0.pak GetLastError code= 3");
  Store store("/s");
  const Hash hash = store.put("blob");
  sim::Files().FailCallOf(sim::Call::WriteFile, 1, sim::Fault::DiskFull, true);
  EXPECT_EQ(ErrorOf([&] { store.put(std::string(100000, 'x')); }),
            "blobring: commit: BlobController::EndTransaction() threw an exception transactionId 0 "
            "exception "
            "File::Write didn't write the entire buffer 100092 written 50046 GetLastError 112");
  sim::Files().Heal();
  EXPECT_TRUE(store.contains(store.put("goes on")));

  sim::Disk& disk = sim::Files().disk;
  disk.Write(disk.Lookup("/s/0.jrn"), 64 + 36, "X", 1);
  EXPECT_NE(ErrorOf([&] { static_cast<void>(store.get(hash)); }).find("BlobPair Read failed"),
            std::string::npos);
  EXPECT_EQ(store.check(), Store::Checked::Faulty);
  EXPECT_NE(store.lastFailure().find("is corrupt"), std::string::npos);
  EXPECT_NE(ErrorOf([&] { store.repack(); }).find("Invalid Blob Detected"), std::string::npos);
  EXPECT_EQ(store.stats().loaded, 0);
}

TEST(Store, StopsAndPassesOnWhatTheProgressFunctionThrows) {
  FreshMachine();
  Store store("/s", {.slots = 3});
  {
    Transaction change(store);
    for (int i = 0; i < 600; ++i) store.put("blob " + std::to_string(i));
    change.commit();
  }
  int calls = 0;
  const blobring::Progress stop = [&](blobring::Operation, std::uint64_t, std::uint64_t) {
    return ++calls < 2;
  };
  const blobring::Progress fail = [](blobring::Operation, std::uint64_t, std::uint64_t) -> bool {
    throw std::domain_error("mine");
  };
  EXPECT_EQ(store.check(stop), Store::Checked::Stopped);
  calls = 0;
  EXPECT_FALSE(store.repack(stop));
  EXPECT_THROW(store.check(fail), std::domain_error);
  EXPECT_THROW(store.repack(fail), std::domain_error);
  EXPECT_EQ(store.check(), Store::Checked::Sound);
  EXPECT_TRUE(store.repack());
  EXPECT_EQ(store.stats().sequence, 1);
  store.close();
  EXPECT_THROW(Store("/s", {.slots = 3, .progress = fail}), std::domain_error);
  EXPECT_EQ(Store("/s", {.slots = 3}).stats().blobCount, 600U) << "its files are not held";
}

}  // namespace
}  // namespace test
