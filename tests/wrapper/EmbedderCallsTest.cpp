// The calls that throw nothing: what they answer, and what they leave alone.
#include <gtest/gtest.h>

#include <algorithm>

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

int OpenWith(std::uint32_t slots, BCProgress* progress = nullptr, void* context = nullptr) {
  BCOptions options{};
  options.size = sizeof options;
  options.slotCount = slots;
  options.progress = progress;
  options.progressContext = context;
  return BCOpen("/s", &options);
}

bool CommitIn(int index, const std::vector<std::string>& blobs) {
  const long long id = 1;
  if (BCStartTransaction(index, &id) != 1) return false;
  unsigned char hash[BLOBRING_HASH_SIZE];
  for (const std::string& blob : blobs)
    if (BCPut(index, reinterpret_cast<const unsigned char*>(blob.data()), static_cast<int>(blob.size()), hash) != 1)
      return false;
  return BCEndTransaction(index, &id) == 1;
}

// "found:" and the bytes, or what came instead.
std::string Fetched(int index, std::string_view data, int capacity = 64) {
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

TEST(EmbedderCalls, OpenByDefaultWithTwoSlotsThatKeepDamagedFiles) {
  FreshMachine();
  SetFile("/s/0.pak", "no pack at all, but the only copy");
  SetFile("/s/1.pak", "neither is this one, so all is moved aside");
  const int index = BCOpen("/s", nullptr);
  ASSERT_GE(index, 0) << LastError(-1);
  EXPECT_EQ(StatisticsOf(index).slotCount, 2U);
  EXPECT_EQ(FileBytes("/s/0.pak.kept-1"), "no pack at all, but the only copy");
  EXPECT_EQ(BCDispose(index), 1);

  FreshMachine();
  const char* const dirs[] = {"/a", "/b", "/c"};
  BCOptions options{};
  options.size = sizeof options;
  options.slotCount = 3;
  options.packDirs = dirs;
  const int spread = BCOpen("/s", &options);
  ASSERT_GE(spread, 0);
  for (const char* path : {"/a/0.pak", "/b/1.pak", "/c/2.pak", "/s/2.jrn"})
    EXPECT_NE(sim::Files().disk.Lookup(path), sim::kNoInode) << path;
  BCDispose(spread);
}

TEST(EmbedderCalls, SayWhyAStoreDoesNotOpenAndLeaveNothingOpen) {
  const struct {
    const char* name;
    void (*prepare)();
    const char* directory;
    const char* reason;
  } rows[] = {
      {"no directory", [] {}, "/nowhere", "BCOpen threw an exception:"},
      {"null", [] {}, nullptr, "BCOpen: directory is null"},
      {"no memory", [] { sim::Memory().RefuseAlloc(1); }, "/s", "Unable to allocate memory"},
      {"no reading",
       [] {
         BCDispose(BCOpen("/s", nullptr));
         sim::Files().FailCallOf(sim::Call::ReadFile, 9, sim::Fault::Error, true);
       },
       "/s", "BlobController::Load failed, every file is left as it was"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FreshMachine();
    row.prepare();
    EXPECT_EQ(BCOpen(row.directory, nullptr), -1);
    EXPECT_NE(LastError(-1).find(row.reason), std::string::npos) << LastError(-1);
    sim::Files().Heal();
    const int index = BCOpen("/s", nullptr);
    EXPECT_GE(index, 0) << "nobody holds a file: " << LastError(-1);
    BCDispose(index);
  }
  FreshMachine();
  BCOptions options{};
  EXPECT_EQ(BCOpen("/s", &options), -1);
  options.size = sizeof options;
  const char* const none[] = {nullptr};
  options.packDirs = none;
  EXPECT_EQ(BCOpen("/s", &options), -1);
  options.slotCount = 1;
  EXPECT_EQ(BCOpen("/s", &options), -1);
  EXPECT_EQ(LastError(-1), "BCOpen: packDirs is null");
}

TEST(EmbedderCalls, FetchAnswersWithoutACheckAndWithoutWaiting) {
  FreshMachine();
  const int index = OpenWith(2);
  ASSERT_TRUE(CommitIn(index, {"blob", ""}));
  Diagnostics().Clear();
  const std::uint64_t before = sim::Files().fired();
  EXPECT_EQ(Fetched(index, "blob"), "found:blob");
  EXPECT_EQ(Fetched(index, "blob", 4), "found:blob");
  EXPECT_EQ(Fetched(index, "blob", 3), "wants 4");
  EXPECT_EQ(Fetched(index, "blob", 0), "wants 4");
  EXPECT_EQ(Fetched(index, "", 0), "found:");
  EXPECT_EQ(Fetched(index, "other"), "absent");
  EXPECT_TRUE(Diagnostics().lines.empty()) << Diagnostics().Text();
  EXPECT_TRUE(Diagnostics().raised.empty());
  EXPECT_EQ(sim::Files().fired(), before);

  unsigned char byte = 0;
  int size = 7;
  const HashBytes hash = HashOf("blob");
  EXPECT_EQ(BCFetch(index, nullptr, &byte, 1, &size), BLOBRING_FAILED);
  EXPECT_EQ(BCFetch(index, hash.data(), nullptr, 1, &size), BLOBRING_FAILED);
  EXPECT_EQ(BCFetch(index, hash.data(), &byte, -1, &size), BLOBRING_FAILED);
  EXPECT_EQ(LastError(index), "BCFetch: capacity = -1 is negative");
  EXPECT_EQ(BCFetch(index, hash.data(), &byte, 1, nullptr), BLOBRING_FAILED);
  EXPECT_EQ(BCFetch(-1, hash.data(), &byte, 1, &size), BLOBRING_FAILED);
  EXPECT_EQ(size, 0);
  BCShutdown(index, true);
  EXPECT_EQ(Fetched(index, "other"), "failed") << "a closed store does not say that a blob is absent";
  EXPECT_EQ(BCNextHash(index, nullptr, &byte), -1);
  EXPECT_EQ(BCCheck(index), BLOBRING_CHECK_FAILED);
  BCDispose(index);
}

// Damage is named at once and costs no other blob. Data that matches its hash
// is given out whatever became of the record around it.
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
      {
        SCOPED_TRACE(row.reason);
        FreshMachine();
        const int index = OpenWith(2);
        ASSERT_TRUE(CommitIn(index, {blob, "sound"}));
        sim::Disk& disk = sim::Files().disk;
        const int journal = disk.Lookup("/s/0.jrn");
        disk.Write(journal, 64 + row.at, row.bytes.data(), static_cast<std::uint32_t>(row.bytes.size()));
        EXPECT_EQ(Fetched(index, blob, 8000), "failed");
        const std::string reason = LastError(index);
        EXPECT_NE(reason.find("file /s/0.jrn offset 64 size " + std::to_string(blob.size()) + ": " + row.reason),
                  std::string::npos)
            << reason;
        EXPECT_EQ(Fetched(index, "sound"), "found:sound");
        EXPECT_EQ(sim::Diagnostics().raised.size(), 0U);
        BCDispose(index);
      }
    }
  }
}

TEST(EmbedderCalls, AbandonedChangesAreGoneAndTheNextTransactionIsSound) {
  FreshMachine();
  {
    const OpenedStore store(2);
    ASSERT_TRUE(store.Commit(1, {"kept"}));
    ASSERT_TRUE(store.Start(2) && store.Store("abandoned") && store.Delete("kept"));
    EXPECT_EQ(StatisticsOf(store.index).pendingChanges, 2U);
    EXPECT_EQ(BCAbandonTransaction(store.index), 1);
    EXPECT_EQ(StatisticsOf(store.index).pendingChanges, 0U);
    ASSERT_TRUE(store.End(2));
    EXPECT_FALSE(store.Get("abandoned"));
    ASSERT_TRUE(store.Commit(3, {"after"}));
    EXPECT_EQ(BCAbandonTransaction(store.index), 1) << "nothing to abandon is no fault";
    EXPECT_EQ(BCAbandonTransaction(-1), 0);
  }
  const OpenedStore again(2);
  EXPECT_TRUE(again.Has("kept") && again.Has("after"));
  EXPECT_EQ(again.All().size(), 2U);
}

TEST(EmbedderCalls, StatisticsCountWhatTheFilesHold) {
  FreshMachine();
  const OpenedStore store(3);
  ASSERT_TRUE(store.Commit(1, {"aaaa", "bb"}));
  BCStatistics of = StatisticsOf(store.index);
  EXPECT_EQ(of.blobCount, 2U);
  EXPECT_EQ(of.liveBytes, 6U);
  EXPECT_EQ(of.largestBlob, 4U);
  EXPECT_EQ(of.slotCount, 3U);
  EXPECT_EQ(of.sequence, 0);
  EXPECT_EQ(of.loaded, 1);
  EXPECT_EQ(of.inDoubt, 0);
  EXPECT_EQ(of.packBytes, 24U);
  const std::uint64_t both = 24 + 40 + (36 + 4) + (36 + 2) + 16;
  EXPECT_EQ(of.journalBytes, both);
  EXPECT_EQ(of.repackedBytes, both);
  ASSERT_TRUE(store.Start(2) && store.Delete("aaaa") && store.End(2));
  ASSERT_EQ(BCRepack(store.index), 1);
  of = StatisticsOf(store.index);
  EXPECT_EQ(of.sequence, 1);
  EXPECT_EQ(of.packBytes, 24U + 40 + 36 + 2 + 16);
  EXPECT_EQ(of.packBytes, of.repackedBytes);
  EXPECT_EQ(of.journalBytes, 24U);

  sim::Files().FailCallOf(sim::Call::FlushFileBuffers, 1, sim::Fault::Error, true);
  EXPECT_FALSE(store.Commit(3, {"c"}));
  sim::Files().Heal();
  EXPECT_EQ(StatisticsOf(store.index).inDoubt, 1);
  BCShutdown(store.index, true);
  EXPECT_EQ(StatisticsOf(store.index).loaded, 0);
}

// A program built with a later header asks for more than this library knows.
TEST(EmbedderCalls, StatisticsFillWhatTheCallerHasRoomFor) {
  FreshMachine();
  const OpenedStore store(1);
  struct {
    BCStatistics known;
    unsigned char later[16];
    unsigned char beyond;
  } grown;
  std::fill_n(reinterpret_cast<unsigned char*>(&grown), sizeof grown, static_cast<unsigned char>(0xAA));
  grown.known.size = sizeof(BCStatistics) + sizeof grown.later;
  ASSERT_EQ(BCGetStatistics(store.index, &grown.known), 1);
  EXPECT_EQ(grown.known.size, sizeof(BCStatistics) + sizeof grown.later);
  EXPECT_TRUE(std::all_of(grown.later, grown.later + sizeof grown.later, [](unsigned char c) { return c == 0; }));
  EXPECT_EQ(grown.beyond, 0xAA);
  grown.known.size = sizeof(BCStatistics) - 1;
  EXPECT_EQ(BCGetStatistics(store.index, &grown.known), 0);
  EXPECT_EQ(BCGetStatistics(store.index, nullptr), 0);
}

// Each store has its text, routine lines do not hide it, and a store that is
// gone leaves none behind.
TEST(EmbedderCalls, LastErrorBelongsToItsStore) {
  FreshMachine();
  const int first = OpenWith(1);
  BCOptions options{};
  options.size = sizeof options;
  const char* const dirs[] = {"/a"};
  options.packDirs = dirs;
  options.slotCount = 1;
  const int second = BCOpen("/b", &options);
  ASSERT_TRUE(first >= 0 && second >= 0);
  HashBytes hash{};
  EXPECT_EQ(BCPut(first, nullptr, 3, hash.data()), 0);
  EXPECT_EQ(BCDelete(second, nullptr), 0);
  EXPECT_EQ(BCFsck(first), 1);
  EXPECT_EQ(BCCheck(second), BLOBRING_CHECK_SOUND);
  EXPECT_EQ(LastError(first), "BCPut: data is null");
  EXPECT_EQ(LastError(second), "BCDelete: hash is null");
  char cut[6] = "-----";
  EXPECT_EQ(BCLastError(first, cut, 5), 19);
  EXPECT_STREQ(cut, "BCPu");
  EXPECT_EQ(BCLastError(first, nullptr, 0), 19);
  EXPECT_EQ(BCDelete(4711, hash.data()), 0);
  EXPECT_EQ(LastError(4711), "BCDelete: no store has the index = 4711");
  EXPECT_EQ(LastError(-1), LastError(4711));
  BCDispose(first);
  BCMD5ChkSum(nullptr, 1, hash.data());
  EXPECT_EQ(LastError(first), "BCMD5ChkSum: data is null");
  EXPECT_EQ(LastError(second), "BCDelete: hash is null");
  BCDispose(second);
}

TEST(EmbedderCalls, LastErrorKeepsTheBeginningOfALongStory) {
  FreshMachine();
  const OpenedStore store(1);
  std::vector<std::string> blobs;
  for (int i = 0; i < 50; ++i) blobs.push_back(std::to_string(i));
  ASSERT_TRUE(store.Commit(1, blobs));
  sim::Files().FailCallOf(sim::Call::ReadFile, 1, sim::Fault::Error, true);
  EXPECT_EQ(BCCheck(store.index), BLOBRING_CHECK_FAULTY);
  sim::Files().Heal();
  EXPECT_EQ(BCLastError(store.index, nullptr, 0), 1023);
  ASSERT_FALSE(Diagnostics().lines.empty());
  EXPECT_EQ(LastError(store.index).find("BlobController::GetBlob() threw an exception"), 0U);
}

struct Calls {
  int stopAt = 0;  // the call that asks to stop, 0: none
  struct Call {
    int operation;
    std::uint64_t done, total;
  };
  std::vector<Call> calls;

  static int Note(void* context, int operation, std::uint64_t done, std::uint64_t total) {
    Calls& self = *static_cast<Calls*>(context);
    self.calls.push_back({operation, done, total});
    return self.stopAt != 0 && static_cast<int>(self.calls.size()) >= self.stopAt;
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
  const int before = OpenWith(2);
  ASSERT_TRUE(CommitIn(before, {std::string(3'000'000, 'x'), std::string(100'000, 'y')}));
  ASSERT_EQ(BCRepack(before), 1);
  ASSERT_TRUE(CommitIn(before, ManyBlobs()));
  BCDispose(before);

  Calls calls;
  calls.stopAt = 1;  // a load goes on
  const int index = OpenWith(2, &Calls::Note, &calls);
  ASSERT_GE(index, 0);
  EXPECT_EQ(StatisticsOf(index).blobCount, 602U);
  ASSERT_GE(calls.calls.size(), 4U);
  EXPECT_EQ(calls.calls.front().total, StatisticsOf(index).packBytes);
  EXPECT_EQ(calls.calls.back().total, StatisticsOf(index).journalBytes);
  calls.stopAt = 0;
  for (const int operation : {BLOBRING_LOADING, BLOBRING_CHECKING, BLOBRING_REPACKING}) {
    SCOPED_TRACE(operation);
    if (operation != BLOBRING_LOADING) calls.calls.clear();
    if (operation == BLOBRING_CHECKING) {
      EXPECT_EQ(BCCheck(index), BLOBRING_CHECK_SOUND);
    }
    if (operation == BLOBRING_REPACKING) {
      EXPECT_EQ(BCRepack(index), 1);
    }
    ASSERT_GE(calls.calls.size(), 3U);
    std::uint64_t last = 0;
    for (const Calls::Call& call : calls.calls) {
      EXPECT_EQ(call.operation, operation);
      EXPECT_TRUE(call.done > last || last == 0);
      EXPECT_LE(call.done, call.total);
      last = call.done == call.total ? 0 : call.done;
    }
    EXPECT_EQ(calls.calls.back().done, calls.calls.back().total);
  }
  BCSetProgress(index, nullptr, nullptr);
  calls.calls.clear();
  EXPECT_EQ(BCCheck(index), BLOBRING_CHECK_SOUND);
  EXPECT_TRUE(calls.calls.empty());
  BCDispose(index);
}

TEST(Progress, StopsACheckUnlessAFaultWasFound) {
  FreshMachine();
  const int index = OpenWith(2);
  ASSERT_TRUE(CommitIn(index, ManyBlobs()));
  Calls calls;
  calls.stopAt = 1;
  BCSetProgress(index, &Calls::Note, &calls);
  EXPECT_EQ(BCCheck(index), BLOBRING_CHECK_STOPPED);
  EXPECT_EQ(calls.calls.size(), 1U);
  EXPECT_EQ(BCFsck(index), 1) << "that one is not stopped";
  sim::Files().FailCallOf(sim::Call::ReadFile, 1, sim::Fault::Error, true);
  EXPECT_EQ(BCCheck(index), BLOBRING_CHECK_FAULTY);
  sim::Files().Heal();
  BCDispose(index);
}

// Whenever it is stopped, the store goes on as if it had not been asked, now
// and after it was opened anew. The next repack may come in either.
TEST(Progress, AStoppedRepackLeavesTheStoreAsItWas) {
  const std::vector<std::string> blobs = ManyBlobs();
  for (const int slots : {1, 2, 3}) {
    for (int stopAt = 1; stopAt <= 3; ++stopAt) {
      SCOPED_TRACE(std::to_string(slots) + " slots, stopped at call " + std::to_string(stopAt));
      FreshMachine();
      const bool sameProcess = stopAt == 2;
      {
        const OpenedStore store(slots);
        ASSERT_TRUE(store.Commit(1, {"first"}));
        ASSERT_EQ(BCRepack(store.index), 1);
        ASSERT_TRUE(store.Commit(2, blobs));
        const std::string current = "/s/" + std::to_string(1 % slots);
        const std::string pack = FileBytes(current + ".pak");
        const std::string journal = FileBytes(current + ".jrn");
        Calls calls;
        calls.stopAt = stopAt;
        BCSetProgress(store.index, &Calls::Note, &calls);
        Diagnostics().Clear();
        EXPECT_EQ(BCRepack(store.index), 0);
        EXPECT_EQ(LastError(store.index), "BlobController::Repack() stopped: the store is open and as it was");
        EXPECT_EQ(Diagnostics().lines.size(), 1U) << Diagnostics().Text();
        EXPECT_EQ(StatisticsOf(store.index).loaded, 1);
        EXPECT_EQ(StatisticsOf(store.index).sequence, 1);
        EXPECT_EQ(FileBytes(current + ".pak"), pack);
        EXPECT_EQ(FileBytes(current + ".jrn"), journal);
        EXPECT_EQ(sim::Files().disk.Lookup("/s/0.pak.new"), sim::kNoInode);
        EXPECT_EQ(BCFsck(store.index), 1) << Diagnostics().Text();
        EXPECT_TRUE(store.Has("first") && store.Has(blobs[0]) && store.Has(blobs[599]));
        if (sameProcess) {
          BCSetProgress(store.index, nullptr, nullptr);
          EXPECT_EQ(BCRepack(store.index), 1) << LastError(store.index);
        } else {
          EXPECT_EQ(BCLoad(store.index), 1) << "the slot that was emptied is not taken for the newest";
        }
        EXPECT_EQ(store.All().size(), 601U);
        ASSERT_TRUE(store.Commit(3, {"after"}));
      }
      {
        const OpenedStore again(slots, OpenedStore::Policy::Keep);
        ASSERT_TRUE(again.loaded);
        EXPECT_EQ(again.All().size(), 602U);
        EXPECT_EQ(BCRepack(again.index), 1);
        EXPECT_EQ(BCFsck(again.index), 1);
        EXPECT_EQ(StatisticsOf(again.index).sequence, sameProcess ? 3 : 2);
      }
      const OpenedStore last(slots);
      EXPECT_EQ(last.All().size(), 602U);
    }
  }
}

}  // namespace
}  // namespace test
