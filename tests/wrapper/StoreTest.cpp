// The C++ wrapper, and through it the calls for embedders, as a program uses them.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <ranges>
#include <type_traits>

#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using blobring::Hash;
using blobring::Store;
using blobring::Transaction;

std::string Text(const std::optional<std::vector<std::byte>>& data) {
  return data ? std::string(reinterpret_cast<const char*>(data->data()), data->size()) : "absent";
}

static_assert(!std::is_copy_constructible_v<Store> && std::is_nothrow_move_constructible_v<Store>);
static_assert(std::forward_iterator<Store::Iterator<Hash>> &&
              std::ranges::forward_range<Store::Range<Store::Blob>>);

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
      Transaction begun(store);
      const Transaction change(std::move(begun));
      store.put("abandoned");
      store.erase(kept);
      store.erase(Hash());  // absent: no change
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

// The last blob is larger than what a batch is read into.
TEST(Store, ManyAtOnceAreWhatTheyAreOneByOne) {
  FreshMachine();
  Store store("/s");
  std::vector<std::string> blobs = {"", std::string(2'000'000, 'x')};
  while (blobs.size() < 700) blobs.push_back("blob " + std::to_string(blobs.size()));
  std::vector<std::span<const std::byte>> bytes;
  for (const std::string& blob : blobs) bytes.push_back(std::as_bytes(std::span(blob)));
  std::vector<Hash> hashes = store.putMany(bytes);
  std::vector<Hash> sorted = hashes;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_TRUE(std::ranges::equal(store.hashes(), sorted));
  EXPECT_TRUE(std::ranges::equal(store.blobs(), sorted, {}, &Store::Blob::hash));
  for (const Store::Blob& blob : store.blobs()) EXPECT_EQ(blob.size, store.size(blob.hash));
  hashes.push_back(Hash());
  blobs.emplace_back("absent");
  const auto read = store.getMany(hashes);
  for (std::size_t i = 0; i < read.size(); ++i) EXPECT_EQ(Text(read[i]), blobs[i]);
  sim::Disk& disk = sim::Files().disk;
  disk.Write(disk.Lookup("/s/0.jrn"), 64 + 36 + 36, "X", 1);
  const blobring::Error error = ErrorOf([&] { store.getMany(hashes); });
  EXPECT_EQ(error.code(), BLOBRING_ERROR_DAMAGED);
  EXPECT_STREQ(BCErrorText(error.code()), "what is on disk is not what a store wrote");
  EXPECT_NE(std::string(error.what()).find("get " + hashes[1].text()), std::string::npos);
  store.eraseMany(std::span(sorted).first(400));
  EXPECT_TRUE(std::ranges::equal(store.hashes(), std::span(sorted).subspan(400)));
  {
    const Transaction change(store);
    store.eraseMany(sorted);
    EXPECT_EQ(store.stats().pendingChanges, 300U);
  }
}

TEST(Store, TakesABlobFromASourceAndHandsItToASink) {
  FreshMachine();
  Store store("/s");
  const std::string blob(200'000, 'b');
  const Hash hash = Hash::of(std::as_bytes(std::span(blob)));
  std::string_view rest = blob;
  const auto source = [&](std::span<std::byte> room) {
    const std::size_t size = rest.copy(reinterpret_cast<char*>(room.data()), room.size());
    rest.remove_prefix(size);
    return size;
  };
  const auto tooMuch = [](std::span<std::byte> room) { return room.size() + 1; };
  const auto fails = [](auto) -> std::size_t { throw std::out_of_range("its own"); };
  EXPECT_THROW(store.putFrom(hash, blob.size(), fails), std::out_of_range);
  EXPECT_EQ(ErrorOf([&] { store.putFrom(hash, 5, tooMuch); }).code(), BLOBRING_ERROR_REFUSED);
  store.putFrom(hash, blob.size(), source);
  store.putFrom(hash, blob.size(), fails);  // present: it is not called
  std::string read;
  const auto sink = [&](std::span<const std::byte> piece) {
    read.append(reinterpret_cast<const char*>(piece.data()), piece.size());
    return true;
  };
  EXPECT_EQ(store.read(hash, sink), Store::Read::Whole);
  EXPECT_EQ(read, blob);
  EXPECT_EQ(store.read(hash, [](auto) { return false; }), Store::Read::Stopped);
  EXPECT_EQ(store.read(Hash(), sink), Store::Read::Absent);
  EXPECT_THROW(store.read(hash, [](auto) -> bool { throw 7; }), int);
  store.close();
  EXPECT_EQ(ErrorOf([&] { store.read(hash, sink); }).code(), BLOBRING_ERROR_NO_STORE);
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
  EXPECT_EQ(ErrorOf([&] { second.repack(); }).code(), BLOBRING_ERROR_REFUSED);
  second.close();
  EXPECT_EQ(ErrorOf([&] { other.commit(); }).code(), BLOBRING_ERROR_CLOSED);
  EXPECT_EQ(ErrorOf([&] { second.put("x"); }).code(), BLOBRING_ERROR_NO_STORE);
  second = Store("/a");
  second = Store("/s");
  EXPECT_EQ(Store("/a").stats().blobCount, 0U) << "what was there is closed";
}

TEST(Store, FailsWithTheStoresOwnWordsAndItsCode) {
  FreshMachine();
  const auto expect = [](const std::function<void()>& call, int code, const std::string& text) {
    const blobring::Error error = ErrorOf(call);
    EXPECT_EQ(error.code(), code);
    EXPECT_NE(std::string(error.what()).find(text), std::string::npos) << error.what();
  };
  sim::Memory().allocs.Refuse(1);
  expect([] { Store("/s"); }, BLOBRING_ERROR_MEMORY,
         "blobring: open /s: there is no memory: BCOpen threw an exception:Unable to allocate");
  Store store("/s");
  expect([] { Store("/s"); }, BLOBRING_ERROR_HELD,
         "FileSystem::CreateFile error /s/0.pak GetLastError code= 32");
  EXPECT_EQ(sim::Files().sleptMs, 500U);
  const Hash hash = store.put("blob");
  sim::Files().FailCallOf(sim::Call::WriteFile, 1, sim::Fault::DiskFull, true);
  expect([&] { store.put(std::string(100000, 'x')); }, BLOBRING_ERROR_FULL,
         "File::Write didn't write the entire buffer 100092 written 50046 GetLastError 112");
  sim::Files().Heal();
  EXPECT_TRUE(store.contains(store.put("goes on")));

  Store other("/a");
  sim::Files().FailCallOf(sim::Call::FlushFileBuffers, 1, sim::Fault::DoneButFailed);
  expect([&] { other.put("in doubt"); }, BLOBRING_ERROR_IN_DOUBT, "did not reach the disk");
  expect([&] { other.put("refused"); }, BLOBRING_ERROR_IN_DOUBT, "a flush has failed");
  EXPECT_EQ(other.stats().inDoubt, 1);
  const std::size_t length = FileBytes("/a/0.jrn").size();
  other.close();
  EXPECT_EQ(FileBytes("/a/0.jrn").size(), length) << "its header may count it";

  Store single("/b", {.slots = 1});
  const std::uint64_t slept = sim::Files().sleptMs;
  sim::Files().FailCallOf(sim::Call::MoveFile, 1, sim::Fault::Busy);
  EXPECT_TRUE(single.repack() && sim::Files().sleptMs == slept + 20) << "free at once";
  sim::Files().FailCallOf(sim::Call::MoveFile, 1, sim::Fault::Error);
  expect([&] { single.repack(); }, BLOBRING_ERROR_IO,
         "repack: the system refused a call: FileSystem::MoveFile error");
  EXPECT_EQ(sim::Files().disk.Lookup("/b/0.pak.new"), sim::kNoInode);
  sim::Disk& disk = sim::Files().disk;
  disk.Write(disk.Lookup("/s/0.jrn"), 64 + 36, "X", 1);
  expect([&] { store.get(hash); }, BLOBRING_ERROR_DAMAGED, "BlobPair Read failed");
  EXPECT_EQ(store.check(), Store::Checked::Faulty);
  expect([&] { store.repack(); }, BLOBRING_ERROR_DAMAGED, "Invalid Blob Detected");
  EXPECT_EQ(store.stats().loaded, 0);
  expect([&] { store.hashes().begin(); }, BLOBRING_ERROR_CLOSED, "the store is not loaded");
  expect([&] { store.check(); }, BLOBRING_ERROR_CLOSED, "the store is not loaded");
}

TEST(Progress, WhatItThrowsReachesTheCaller) {
  FreshMachine();
  const blobring::Progress fail = [](blobring::Operation, std::uint64_t, std::uint64_t) -> bool {
    throw std::domain_error("mine");
  };
  {
    Store store("/s");
    store.put("blob");
    EXPECT_THROW(store.repack(fail), std::domain_error);
    for (int i = 0; i < 300; ++i) store.put(std::to_string(i));
    EXPECT_EQ(store.check([](auto...) { return false; }), Store::Checked::Stopped);
    EXPECT_TRUE(store.repack());
  }
  EXPECT_THROW(Store("/s", {.progress = fail}), std::domain_error);
  EXPECT_EQ(Store("/s").stats().blobCount, 301U) << "its files are not held";
}

}  // namespace
}  // namespace test
