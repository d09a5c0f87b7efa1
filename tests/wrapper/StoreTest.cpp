// The C++ wrapper, and through it the calls for embedders, as a program uses them.
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
using blobring::Operation;
using blobring::Store;
using blobring::Transaction;

std::span<const std::byte> Bytes(std::string_view text) {
  return std::as_bytes(std::span(text));
}

std::string Text(const std::optional<std::vector<std::byte>>& data) {
  return data ? std::string(reinterpret_cast<const char*>(data->data()), data->size()) : "absent";
}

// Enough for three batches.
std::set<Hash> PutMany(Store& store) {
  std::set<Hash> hashes;
  Transaction change(store);
  for (int i = 0; i < 600; ++i) hashes.insert(store.put("blob " + std::to_string(i)));
  change.commit();
  return hashes;
}

// RFC 1321, A.5.
TEST(Hash, ReadsAndWritesThirtyTwoDigits) {
  const Hash abc = Hash::of(Bytes("abc"));
  EXPECT_EQ(abc.text(), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(Hash::parse("900150983CD24FB0D6963F7D28E17F72"), abc);
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
  Hash kept, alone;
  {
    Store store("/s");
    {
      Transaction change(store, 5);
      kept = store.put("kept");
      change.commit();
      EXPECT_EQ(ErrorOf([&] { change.commit(); }).code(), BLOBRING_ERROR_CLOSED);
    }
    {
      const Transaction change(store);
      store.put("abandoned");
      store.erase(kept);
      EXPECT_EQ(store.stats().pendingChanges, 2U);
    }
    EXPECT_TRUE(store.repack()) << "nothing is pending";
    alone = store.put("12345");
    store.erase(store.put("gone"));
  }
  Store store("/s");
  EXPECT_EQ(store.stats().blobCount, 2U);
  EXPECT_EQ(Text(store.get(kept)), "kept");
  std::array<std::byte, 8> room{};
  EXPECT_EQ(store.get(alone, std::span(room).first(4)), 5U) << "wants more room";
  EXPECT_EQ(room[0], std::byte{0});
  EXPECT_EQ(store.get(alone, room), 5U);
  EXPECT_TRUE(room[4] == std::byte{'5'} && room[5] == std::byte{0});
  EXPECT_EQ(Text(store.get(store.put(""))), "");
  EXPECT_EQ(store.get(Hash(), room), std::nullopt);
  EXPECT_EQ(sim::Files().sleptMs + sim::Diagnostics().raised.size(), 0U);
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
  EXPECT_STREQ(ErrorOf([&] { const Transaction nested(second); }).what(),
               "blobring: begin: a transaction is open already");
  second.close();
  EXPECT_EQ(ErrorOf([&] { other.commit(); }).code(), BLOBRING_ERROR_CLOSED);
  EXPECT_EQ(ErrorOf([&] { second.put("x"); }).code(), BLOBRING_ERROR_NO_STORE);
}

TEST(Store, EnumeratesInOrderWhileBlobsGo) {
  FreshMachine();
  Store store("/s");
  const std::set<Hash> expected = PutMany(store);
  EXPECT_TRUE(std::ranges::equal(store.hashes(), expected));
  std::vector<Hash> seen;
  for (const Hash& hash : store.hashes()) {
    seen.push_back(hash);
    store.erase(hash);
  }
  EXPECT_TRUE(std::ranges::equal(seen, expected));
  EXPECT_TRUE(std::ranges::empty(store.hashes()));
}

TEST(Store, FailsWithTheStoresOwnWordsAndItsCode) {
  FreshMachine();
  const auto expect = [](const std::function<void()>& call, int code, const std::string& text) {
    const blobring::Error error = ErrorOf(call);
    EXPECT_EQ(error.code(), code);
    EXPECT_NE(std::string(error.what()).find(text), std::string::npos) << error.what();
  };
  sim::Memory().RefuseAlloc(1);
  expect([] { Store("/s"); }, BLOBRING_ERROR_MEMORY, "Unable to allocate memory");
  expect(
      [] { Store("/nowhere"); }, BLOBRING_ERROR_IO,
      "blobring: open /nowhere: FileSystem::CreateFile error /nowhere/0.pak GetLastError code= 3\n"
      "BCOpen threw an exception:FileSystem::CreateFile error /nowhere/0.pak GetLastError code= 3");
  Store store("/s");
  expect([] { Store("/s"); }, BLOBRING_ERROR_HELD,
         "FileSystem::CreateFile error /s/0.pak GetLastError code= 32");
  const Hash hash = store.put("blob");
  sim::Files().FailCallOf(sim::Call::WriteFile, 1, sim::Fault::DiskFull, true);
  expect([&] { store.put(std::string(100000, 'x')); }, BLOBRING_ERROR_FULL,
         "blobring: commit: BlobController::EndTransaction() threw an exception transactionId 0 "
         "exception File::Write didn't write the entire buffer 100092 written 50046 GetLastError "
         "112");
  sim::Files().Heal();
  EXPECT_TRUE(store.contains(store.put("goes on")));

  sim::Disk& disk = sim::Files().disk;
  disk.Write(disk.Lookup("/s/0.jrn"), 64 + 36, "X", 1);
  expect([&] { store.get(hash); }, BLOBRING_ERROR_DAMAGED, "BlobPair Read failed");
  EXPECT_EQ(store.check(), Store::Checked::Faulty);
  EXPECT_NE(store.lastFailure().find("is corrupt"), std::string::npos);
  expect([&] { store.repack(); }, BLOBRING_ERROR_DAMAGED, "Invalid Blob Detected");
  EXPECT_EQ(store.stats().loaded, 0);
  expect([&] { store.get(hash); }, BLOBRING_ERROR_CLOSED, "the store is not loaded");
  expect([&] { store.hashes().begin(); }, BLOBRING_ERROR_CLOSED, "the store is not loaded");
  expect([&] { store.check(); }, BLOBRING_ERROR_CLOSED, "the store is not loaded");
}

TEST(Progress, RisesToTheEndOfEachOperation) {
  FreshMachine();
  {
    Store store("/s");
    PutMany(store);
    store.repack();
    store.put(std::string(3'000'000, 'x'));
    store.put("y");
  }
  std::map<Operation, int> calls;
  std::uint64_t last = 0;
  const blobring::Progress note = [&](Operation operation, std::uint64_t done,
                                      std::uint64_t total) {
    ++calls[operation];
    EXPECT_TRUE(done > last && done <= total);
    last = done == total ? 0 : done;
    return operation != Operation::Load;  // which goes on
  };
  Store store("/s", {.progress = note});
  EXPECT_EQ(store.check(note), Store::Checked::Sound);
  EXPECT_TRUE(store.repack(note));
  for (const Operation each : {Operation::Load, Operation::Check, Operation::Repack})
    EXPECT_GE(calls[each], 3) << static_cast<int>(each);
  EXPECT_EQ(last, 0U) << "ends with done = total";
  EXPECT_EQ(store.stats().blobCount, 602U);
}

// Wherever it is stopped, the store is as before, now and after the next load.
TEST(Progress, AStoppedRepackLeavesTheStoreAsItWas) {
  for (unsigned slots = 1; slots <= 3; ++slots) {
    for (int stopAt = 1; stopAt <= 3; ++stopAt) {
      SCOPED_TRACE(std::to_string(slots) + " slots, stopped at call " + std::to_string(stopAt));
      FreshMachine();
      std::optional<Store> store(std::in_place, "/s", blobring::Options{.slots = slots});
      store->repack();
      PutMany(*store);
      const std::string current = "/s/" + std::to_string(1 % slots);
      const std::string before = FileBytes(current + ".pak") + FileBytes(current + ".jrn");
      int calls = 0;
      const blobring::Progress stop = [&](Operation, std::uint64_t, std::uint64_t) {
        return ++calls < stopAt;
      };
      EXPECT_FALSE(store->repack(stop));
      EXPECT_EQ(store->lastFailure(),
                "BlobController::Repack() stopped: the store is open and as it was");
      EXPECT_EQ(FileBytes(current + ".pak") + FileBytes(current + ".jrn"), before);
      EXPECT_EQ(sim::Files().disk.Lookup("/s/0.pak.new"), sim::kNoInode);
      // The slot that was emptied is not taken for the newest, and is next.
      EXPECT_TRUE(stopAt == 2 ? store->repack() : BCLoad(store->index()) == 1);
      store->put("after");
      store.emplace("/s", blobring::Options{.slots = slots});
      EXPECT_EQ(store->stats().blobCount, 601U);
      EXPECT_TRUE(store->repack());
      EXPECT_EQ(store->stats().sequence, stopAt == 2 ? 3 : 2);
      calls = 3;
      EXPECT_EQ(store->check(stop), Store::Checked::Stopped);
    }
  }
}

TEST(Progress, WhatItThrowsReachesTheCaller) {
  FreshMachine();
  Store store("/s");
  store.put("blob");
  const blobring::Progress fail = [](Operation, std::uint64_t, std::uint64_t) -> bool {
    throw std::domain_error("mine");
  };
  EXPECT_THROW(store.check(fail), std::domain_error);
  EXPECT_THROW(store.repack(fail), std::domain_error);
  EXPECT_TRUE(store.repack());
  store.close();
  EXPECT_THROW(Store("/s", {.progress = fail}), std::domain_error);
  EXPECT_EQ(Store("/s").stats().blobCount, 1U) << "its files are not held";
}

}  // namespace
}  // namespace test
