// The calls that throw nothing: what they answer, and what they leave alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>

#include "platform/Win32.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using sim::Diagnostics;

std::string LastError(int index) {
  char text[1024];
  BCLastError(index, text, sizeof text);
  return text;
}

BCStatistics StatisticsOf(int index) {
  BCStatistics statistics{};
  statistics.size = sizeof statistics;
  EXPECT_EQ(BCGetStatistics(index, &statistics), 1);
  return statistics;
}

// "found:" and the bytes, or what came instead.
std::string Fetched(int index, std::string_view data, int capacity = 8000) {
  std::string buffer(static_cast<std::size_t>(capacity), '\0');
  int size = -1;
  unsigned char* room = capacity == 0 ? nullptr : reinterpret_cast<unsigned char*>(buffer.data());
  switch (BCFetch(index, HashOf(data).data(), room, capacity, &size)) {
    case BLOBRING_FETCHED:
      return "found:" + buffer.substr(0, static_cast<std::size_t>(size));
    case BLOBRING_NOT_FOUND:
      return size == 0 ? "absent" : "absent with a size";
    case BLOBRING_TOO_SMALL:
      return "wants " + std::to_string(size);
    default:
      return size == 0 ? "failed" : "failed with a size";
  }
}

TEST(EmbedderCalls, FetchAnswersWithoutACheckAndWithoutWaiting) {
  FreshMachine();
  const OpenedStore store(2);
  ASSERT_TRUE(store.Commit(1, {"blob", ""}));
  Diagnostics().Clear();
  const struct {
    const char* data;
    int capacity;
    const char* answer;
  } rows[] = {{"blob", 64, "found:blob"}, {"blob", 4, "found:blob"}, {"blob", 3, "wants 4"},
              {"blob", 0, "wants 4"},     {"", 0, "found:"},         {"other", 64, "absent"}};
  for (const auto& row : rows) EXPECT_EQ(Fetched(store.index, row.data, row.capacity), row.answer);
  EXPECT_TRUE(Diagnostics().lines.empty()) << Diagnostics().Text();
  EXPECT_TRUE(Diagnostics().raised.empty());
  EXPECT_EQ(sim::Files().sleptMs, 0U);

  unsigned char byte = 0;
  int size = 7;
  const HashBytes hash = HashOf("blob");
  EXPECT_EQ(BCFetch(store.index, nullptr, &byte, 1, &size), BLOBRING_FAILED);
  EXPECT_EQ(BCFetch(store.index, hash.data(), nullptr, 1, &size), BLOBRING_FAILED);
  EXPECT_EQ(BCFetch(store.index, hash.data(), &byte, 1, nullptr), BLOBRING_FAILED);
  EXPECT_EQ(BCFetch(store.index, hash.data(), &byte, -1, &size), BLOBRING_FAILED);
  EXPECT_EQ(size, 0);
  EXPECT_EQ(LastError(store.index), "BCFetch: capacity = -1 is negative");
  EXPECT_EQ(BCLastErrorCode(store.index), BLOBRING_ERROR_ARGUMENT);
  BCShutdown(store.index, true);
  EXPECT_EQ(Fetched(store.index, "other"), "failed")
      << "a closed store does not say that a blob is absent";
  EXPECT_EQ(BCNextHash(store.index, nullptr, &byte), -1);
  EXPECT_EQ(BCLastErrorCode(store.index), BLOBRING_ERROR_CLOSED);
  EXPECT_EQ(BCCheck(store.index), BLOBRING_CHECK_FAILED);
}

// Damage is named at once, with its place, and costs no other blob.
TEST(EmbedderCalls, FetchNamesTheDamageAndKeepsTheStoreOpen) {
  const struct {
    std::uint32_t at;  // from the record's start
    std::string bytes;
    const char* reason;
  } rows[] = {
      {0, "\1", "the record is not the blob's"},
      {16, "XY", "BlobPair Read failed"},
      {32, "\377\377", "BlobPair::Read : too large size"},
      {32, {"\1\0", 2}, "BlobPair Read failed"},
      {36, "X", "BlobPair Read failed"},
  };
  for (const std::string& blob : {std::string("damaged"), std::string(5000, 'd')}) {
    for (const auto& row : rows) {
      SCOPED_TRACE(row.reason);
      FreshMachine();
      const OpenedStore store(2);
      ASSERT_TRUE(store.Commit(1, {blob, "sound"}));
      sim::Disk& disk = sim::Files().disk;
      disk.Write(disk.Lookup("/s/0.jrn"), 64 + row.at, row.bytes.data(),
                 static_cast<std::uint32_t>(row.bytes.size()));
      EXPECT_EQ(Fetched(store.index, blob), "failed");
      const std::string reason = LastError(store.index);
      EXPECT_NE(reason.find("file /s/0.jrn offset 64 size " + std::to_string(blob.size()) + ": " +
                            row.reason),
                std::string::npos)
          << reason;
      EXPECT_EQ(BCLastErrorCode(store.index), BLOBRING_ERROR_DAMAGED);
      EXPECT_EQ(Fetched(store.index, "sound"), "found:sound");
    }
  }
}

TEST(EmbedderCalls, StatisticsCountWhatTheFilesHold) {
  FreshMachine();
  const OpenedStore store(3);
  ASSERT_TRUE(store.Commit(1, {"aaaa", "bb"}));
  const std::uint64_t both = 24 + 40 + (36 + 4) + (36 + 2) + 16;
  BCStatistics of = StatisticsOf(store.index);
  const std::vector<std::uint64_t> seen = {of.blobCount,    of.liveBytes, of.largestBlob,
                                           of.slotCount,    of.packBytes, of.journalBytes,
                                           of.repackedBytes};
  EXPECT_EQ(seen, (std::vector<std::uint64_t>{2, 6, 4, 3, 24, both, both}));
  EXPECT_EQ(of.loaded - of.inDoubt, 1);
  ASSERT_TRUE(store.Start(2) && store.Delete("aaaa"));
  EXPECT_EQ(StatisticsOf(store.index).pendingChanges, 1U);
  ASSERT_TRUE(store.End(2));
  ASSERT_EQ(BCRepack(store.index), BLOBRING_REPACKED);
  of = StatisticsOf(store.index);
  EXPECT_EQ(of.sequence, 1);
  EXPECT_EQ(of.packBytes, 24U + 40 + 36 + 2 + 16);
  EXPECT_EQ(of.packBytes, of.repackedBytes);
  EXPECT_EQ(of.journalBytes, 24U);

  // Programs built with an earlier header, and with a later one.
  struct {
    BCStatistics known;
    unsigned char later[16];
    unsigned char beyond;
  } grown;
  const auto byte = [&](std::size_t at) { return reinterpret_cast<unsigned char*>(&grown)[at]; };
  for (const std::size_t size :
       {offsetof(BCStatistics, damaged), sizeof(BCStatistics) + sizeof grown.later}) {
    std::fill_n(reinterpret_cast<unsigned char*>(&grown), sizeof grown,
                static_cast<unsigned char>(0xAA));
    grown.known.size = static_cast<std::uint32_t>(size);
    ASSERT_EQ(BCGetStatistics(store.index, &grown.known), 1);
    EXPECT_EQ(grown.known.size, size);
    EXPECT_EQ(byte(size - 1), 0);
    EXPECT_EQ(byte(size), 0xAA);
  }
  grown.known.size = offsetof(BCStatistics, damaged) - 1;
  EXPECT_EQ(BCGetStatistics(store.index, &grown.known), 0);

  sim::Files().FailCallOf(sim::Call::FlushFileBuffers, 1, sim::Fault::Error, true);
  EXPECT_FALSE(store.Commit(3, {"c"}));
  sim::Files().Heal();
  EXPECT_EQ(StatisticsOf(store.index).inDoubt, 1);
}

// Each store has its text, routine lines do not hide it, and a store that is
// gone leaves none behind.
TEST(EmbedderCalls, LastErrorBelongsToItsStore) {
  FreshMachine();
  const int first = BCOpen("/s", nullptr);
  const int second = BCOpen("/b", nullptr);
  ASSERT_TRUE(first >= 0 && second >= 0);
  HashBytes hash{};
  EXPECT_EQ(BCLastErrorCode(first), BLOBRING_ERROR_NONE);
  EXPECT_EQ(BCPut(first, nullptr, 3, hash.data()), 0);
  EXPECT_EQ(BCDelete(second, nullptr), 0);
  EXPECT_EQ(BCFsck(first), 1);
  EXPECT_EQ(BCCheck(second), BLOBRING_CHECK_SOUND);
  EXPECT_EQ(LastError(first), "BCPut: data is null");
  EXPECT_EQ(BCLastErrorCode(first), BLOBRING_ERROR_ARGUMENT);
  EXPECT_EQ(LastError(second), "BCDelete: hash is null");
  char cut[6] = "-----";
  EXPECT_EQ(BCLastError(first, cut, 5), 19);
  EXPECT_STREQ(cut, "BCPu");
  EXPECT_EQ(BCLastError(first, nullptr, 0), 19);
  EXPECT_EQ(BCDelete(4711, hash.data()), 0);
  EXPECT_EQ(LastError(4711), "BCDelete: no store has the index = 4711");
  EXPECT_EQ(BCLastErrorCode(-1), BLOBRING_ERROR_NO_STORE);
  // The cause comes first, and the end of a long story goes.
  const long long id = 1;
  for (unsigned char i = 0; i < 50; ++i) BCPut(first, &i, 1, hash.data());
  ASSERT_EQ(BCEndTransaction(first, &id), 1);
  sim::Files().disk.Write(sim::Files().disk.Lookup("/s/0.jrn"), 64 + 36, "X", 1);
  EXPECT_EQ(BCRepack(first), BLOBRING_NOT_REPACKED);
  EXPECT_EQ(BCLastError(first, nullptr, 0), 1023);
  EXPECT_EQ(LastError(first).find("Blob::isValid() is false : hash="), 0U) << LastError(first);
  BCDispose(first);
  EXPECT_EQ(LastError(first), LastError(-1));
  EXPECT_EQ(LastError(second), "BCDelete: hash is null");
  BCDispose(second);
}

// Whatever a function of the host's calls, the outer call goes on.
TEST(EmbedderCalls, AreRefusedInsideAnotherCall) {
  FreshMachine();
  const int index = BCOpen("/s", nullptr);
  HashBytes hash = HashOf("");
  const long long id = 1;
  ASSERT_EQ(BCPut(index, hash.data(), 0, hash.data()) + BCEndTransaction(index, &id), 2);
  struct Inside {
    int index;
    std::vector<int> results;
    std::string text;
  } inside{index, {}, {}};
  const auto callBack = [](void* context, int, std::uint64_t, std::uint64_t) {
    Inside& in = *static_cast<Inside*>(context);
    in.results = {BCDispose(in.index),      BCOpen("/b", nullptr),
                  BCInitialize(u"/b"),      BCShutdown(in.index, true),
                  BCLoad(in.index),         FilterException(in.index, 1, nullptr),
                  BCLastErrorCode(in.index)};
    in.text = LastError(in.index);
    return 0;
  };
  BCSetProgress(index, callBack, &inside);
  EXPECT_EQ(BCCheck(index), BLOBRING_CHECK_SOUND);
  EXPECT_EQ(inside.results, (std::vector<int>{0, -1, -1, 0, 0, 0, BLOBRING_ERROR_REFUSED}));
  EXPECT_EQ(inside.text.find("BCDispose: called from inside another call\nBCOpen: called"), 0U)
      << inside.text;
  EXPECT_EQ(inside.text, LastError(index));
  EXPECT_NE(inside.text.find("FilterException() except: unknown exception 1"), std::string::npos);

  // A host that takes an access violation never comes back to the outer call.
  const auto takeException = [](void* context, int, std::uint64_t, std::uint64_t) {
    Inside& in = *static_cast<Inside*>(context);
    unsigned char next[BLOBRING_HASH_SIZE];
    in.results = {FilterException(in.index, EXCEPTION_ACCESS_VIOLATION, nullptr),
                  BCNextHash(in.index, nullptr, next)};
    return 1;
  };
  BCSetProgress(index, takeException, &inside);
  BCCheck(index);
  EXPECT_EQ(inside.results, (std::vector<int>{1, 1}));
  EXPECT_EQ(BCDispose(index), 1);
}

struct Calls {
  int stopAt = 0;  // the call that asks to stop, 0: none
  std::vector<std::array<std::uint64_t, 3>> seen = {};

  static int Note(void* context, int operation, std::uint64_t done, std::uint64_t total) {
    Calls& self = *static_cast<Calls*>(context);
    self.seen.push_back({static_cast<std::uint64_t>(operation), done, total});
    return self.stopAt != 0 && static_cast<int>(self.seen.size()) >= self.stopAt;
  }
};

// Enough for three batches.
std::vector<std::string> ManyBlobs() {
  std::vector<std::string> blobs;
  for (int i = 0; i < 600; ++i) blobs.push_back("blob " + std::to_string(i));
  return blobs;
}

TEST(Progress, RisesToTheEndOfEachOperation) {
  FreshMachine();
  const OpenedStore store(2);
  ASSERT_TRUE(store.Commit(1, ManyBlobs()));
  ASSERT_EQ(BCRepack(store.index), BLOBRING_REPACKED);
  ASSERT_TRUE(store.Commit(2, {std::string(3'000'000, 'x'), "y"}));
  for (const int operation : {BLOBRING_LOADING, BLOBRING_CHECKING, BLOBRING_REPACKING}) {
    SCOPED_TRACE(operation);
    Calls calls{.stopAt = operation == BLOBRING_LOADING ? 1 : 0};  // a load goes on
    BCSetProgress(store.index, &Calls::Note, &calls);
    EXPECT_EQ(operation == BLOBRING_LOADING    ? BCLoad(store.index)
              : operation == BLOBRING_CHECKING ? BCCheck(store.index)
                                               : BCRepack(store.index),
              1);
    ASSERT_GE(calls.seen.size(), 3U);
    std::uint64_t last = 0;
    for (const auto& [of, done, total] : calls.seen) {
      EXPECT_EQ(of, static_cast<std::uint64_t>(operation));
      EXPECT_TRUE((done > last || last == 0) && done <= total);
      last = done == total ? 0 : done;
    }
    EXPECT_EQ(last, 0U) << "ends with done = total";
  }
  EXPECT_EQ(StatisticsOf(store.index).blobCount, 602U);
}

// Whenever it is stopped, the store goes on as if it had not been asked, now
// and when it is loaded again.
TEST(Progress, AStoppedRepackLeavesTheStoreAsItWas) {
  for (const int slots : {1, 2, 3}) {
    for (int stopAt = 1; stopAt <= 3; ++stopAt) {
      SCOPED_TRACE(std::to_string(slots) + " slots, stopped at call " + std::to_string(stopAt));
      FreshMachine();
      {
        const OpenedStore store(slots);
        ASSERT_EQ(BCRepack(store.index), BLOBRING_REPACKED);
        ASSERT_TRUE(store.Commit(2, ManyBlobs()));
        const std::string current = "/s/" + std::to_string(1 % slots);
        const std::string before = FileBytes(current + ".pak") + FileBytes(current + ".jrn");
        Calls calls{.stopAt = stopAt};
        BCSetProgress(store.index, &Calls::Note, &calls);
        EXPECT_EQ(BCRepack(store.index), BLOBRING_NOT_REPACKED);
        EXPECT_EQ(LastError(store.index),
                  "BlobController::Repack() stopped: the store is open and as it was");
        EXPECT_EQ(FileBytes(current + ".pak") + FileBytes(current + ".jrn"), before);
        EXPECT_EQ(sim::Files().disk.Lookup("/s/0.pak.new"), sim::kNoInode);
        BCSetProgress(store.index, nullptr, nullptr);
        // The slot that was emptied is not taken for the newest, and is next.
        EXPECT_EQ(stopAt == 2 ? BCRepack(store.index) : BCLoad(store.index), 1)
            << LastError(store.index);
        EXPECT_EQ(store.All().size(), 600U);
        ASSERT_TRUE(store.Commit(3, {"after"}));
      }
      const OpenedStore again(slots, OpenedStore::Policy::Keep);
      EXPECT_EQ(again.All().size(), 601U);
      EXPECT_EQ(BCRepack(again.index), BLOBRING_REPACKED);
      EXPECT_EQ(StatisticsOf(again.index).sequence, stopAt == 2 ? 3 : 2);
    }
  }
}

}  // namespace
}  // namespace test
