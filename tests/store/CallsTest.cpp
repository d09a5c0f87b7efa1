// The exported calls: results, warnings, events and numeric records.
#include <blobring/host.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <functional>

#include "platform/Win32.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using sim::Diagnostics;

unsigned char* Bytes(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}

// One call shows each check that all calls share, with each kind of failure value.
TEST(Calls, InvalidArgumentsGiveTheFailureValueAndAWarningAndWriteNothing) {
  FreshMachine();
  const OpenedStore store;
  const int i = store.index, none = 1 << 20;
  unsigned char hash[16] = {}, data[1] = {};
  BCBlob blobs[2] = {{data, 1, {}}, {nullptr, 1, {}}};
  BCFetchItem items[4] = {
      {{}, data, 1, 7, 0}, {{}, nullptr, 1, 7, 0}, {{}, data, -1, 7, 0}, {{}, data, 0, 7, 0}};
  const long long id = 1;
  const char* const noDirectory = nullptr;
  const BCOptions small = {offsetof(BCOptions, mustExist) - 1, 0, nullptr, 0, nullptr, {}, 0, 0},
                  noCount = {sizeof small, 0, &noDirectory, 0, nullptr, {}, 0, 0};
  BCStatistics statistics{};
  statistics.size = offsetof(BCStatistics, damaged) - 1;
  int size = 7;
  ASSERT_TRUE(store.Start(id));
  const std::string before = FileBytes("/s/0.jrn");
  Diagnostics().Clear();
  const auto source = [](void*, unsigned char*, int) { return -1; };
  const struct {
    int result, failure;
    std::string warning;
  } rows[] = {
      {BCMD5ChkSum(data, 1, nullptr), 1, "BCMD5ChkSum: digest is null"},
      {BCInitialize(u"/s/\u4E00"), -1, "BCInitialize: path has a unit whose low byte is 0"},
      {BCAddPackDir(i, u"/s"), 0, "BCAddPackDir: the store is in use, its slots are fixed"},
      {BCOpen("/a", &small), -1, "BCOpen: options->size = "},
      {BCOpen("/a", &noCount), -1, "BCOpen: packDirs needs slotCount"},
      {BCSetDamagePolicy(i, 2), 0, "BCSetDamagePolicy: there is no policy = 2"},
      {BCStore(i, hash, data, -1), 0, "BCStore: size = -1 is negative"},
      {BCGetSize(i, nullptr), -2, "BCGetSize: hash is null"},
      {BCFetch(i, nullptr, data, 1, &size), 2, "BCFetch: hash is null"},
      {BCFetch(i, hash, data, 1, nullptr), 2, "BCFetch: size is null"},
      {BCGetStatistics(i, &statistics), 0, "BCGetStatistics: size = "},
      {BCRead(i, hash, nullptr, nullptr), 2, "BCRead: sink is null"},
      {BCStoreFrom(i, hash, 1, nullptr, nullptr), 0, "BCStoreFrom: source is null"},
      {BCStoreFrom(i, hash, 1ULL << 32, source, nullptr), 0,
       "BCStoreFrom: size = 4294967296 is more than a blob can have"},
      {BCStoreFrom(i, hash, 2'147'483'532, source, nullptr), 0,
       "BlobController::Store() threw an exception BlobFile: /s/0.jrn at 64: no room"},
      {BCStore(none, nullptr, nullptr, -1), 0, "BCStore: no store has the index = 1048576"},
      {BCCheck(none), -2, "BCCheck: no store has the index = 1048576"},
      {BCNextHash(none, nullptr, hash), -1, "BCNextHash: no store has the index = 1048576"},
      {BCNextHashes(i, nullptr, nullptr, 1), -1, "BCNextHashes: next is null"},
      {BCDeleteMany(i, nullptr, 1), 0, "BCDeleteMany: hashes is null"},
      {BCFetchMany(none, items, 2), 0, "BCFetchMany: no store has the index = 1048576"},
      {BCFetchMany(i, nullptr, 2), 0, "BCFetchMany: items is null"},
      {BCDispose(none), 1, "BCDispose with index = 1048576"},
  };
  for (std::size_t r = 0; r < std::size(rows); ++r) {
    EXPECT_EQ(rows[r].result, rows[r].failure) << rows[r].warning;
    EXPECT_EQ(Diagnostics().lines.at(r).find("warning " + rows[r].warning), 0U);
  }
  EXPECT_EQ(size, 0);
  EXPECT_TRUE(items[0].result == BLOBRING_FAILED && items[1].size == 0 && items[2].size == 7);
  EXPECT_EQ(FileBytes("/s/0.jrn"), before);
  EXPECT_EQ(sim::Files().disk.Lookup("/s/1.pak"), sim::kNoInode);
  Diagnostics().Clear();
  EXPECT_EQ(BCPutMany(i, blobs, 2), 1) << "what comes before the invalid one is stored";
  EXPECT_EQ(Diagnostics().Text(), "warning BCPutMany: data is null\n");
  EXPECT_EQ(BCEndTransaction(i, &id) + BCGetAllBlobHashesReset(i), 2);
  for (BCFetchItem& item : items) std::copy_n(blobs[0].hash, 16, item.hash);
  EXPECT_EQ(BCFetchMany(i, items, 4), 1);
  for (int k = 0; k < 4; ++k) {
    constexpr int kResults[] = {BLOBRING_FETCHED, BLOBRING_FAILED, BLOBRING_FAILED,
                                BLOBRING_TOO_SMALL};
    EXPECT_TRUE(items[k].result == kResults[k] && items[k].size == (k % 3 == 0 ? 1 : 0)) << k;
  }
}

// A blob of 100,000 bytes takes two calls of a sink or a source, which throws in the second; one
// that is damaged in its last byte never gets there.
TEST(Calls, WhatASinkOrASourceThrowsIsAFailureOrPassesThrough) {
  FreshMachine();
  const OpenedStore store;
  const std::string blob(100'000, 'b'), damaged(100'000, 'd');
  ASSERT_TRUE(store.Commit(1, {blob, damaged}) && store.Start(2) && store.Store("before"));
  sim::Files().disk.Damage("/s/0.jrn", [](auto& bytes) { bytes[bytes.rfind('d')] ^= 1; });
  struct Host {
    bool throwsInt;
    int calls = 0;
    int Call() {
      if (++calls == 1) return 0;
      if (throwsInt) throw 7;
      throw std::runtime_error("of its own");
    }
  };
  const auto read = [&](const std::string& wanted, Host host) {
    const auto sink = [](void* context, const unsigned char*, int) {
      return static_cast<Host*>(context)->Call();
    };
    return BCRead(store.index, HashOf(wanted).data(), sink, &host);
  };
  const auto storeFrom = [&](const std::string& given, Host host) {
    const auto source = [](void* context, unsigned char*, int) {
      return 1 + static_cast<Host*>(context)->Call();
    };
    return BCStoreFrom(store.index, HashOf(given).data(), 100'000, source, &host);
  };
  EXPECT_EQ(read(blob, {false}), BLOBRING_FAILED);
  EXPECT_NE(LastErrorOf(store.index).find("BCRead threw an exception:of its own"),
            std::string::npos);
  EXPECT_EQ(storeFrom("absent", {false}), 0);
  EXPECT_NE(LastErrorOf(store.index).find("threw an exception of its own"), std::string::npos);
  EXPECT_THROW(read(blob, {true}), int);
  EXPECT_THROW(storeFrom("absent", {true}), int);
  EXPECT_EQ(read(damaged, {false}), BLOBRING_FAILED);
  EXPECT_EQ(BCLastErrorCode(store.index), BLOBRING_ERROR_DAMAGED);
  EXPECT_EQ(storeFrom(blob, {false}), 1) << "present";
  EXPECT_EQ(StoreInPieces(store.index, damaged, damaged + "more"), 1) << "in its place";
  ASSERT_TRUE(store.End(2));
  for (const std::string& each : {blob, damaged, std::string("before")})
    EXPECT_EQ(ReadInPieces(store.index, HashOf(each)), each);
}

TEST(Calls, EveryCallLeavesItsEventsAndRecords) {
  FreshMachine();
  HashBytes hash{};
  std::string data = "abc";
  Diagnostics().Clear();
  BCMD5ChkSum(Bytes(data), 3, hash.data());
  const int i = BCInitialize(u"/\u0173");  // its low 8 bits count: s
  BCAddPackDir(i, u"/s");
  BCLoad(i);
  const long long id = 0x100000002;  // the low half is traced
  BCStartTransaction(i, &id);
  BCStore(i, hash.data(), Bytes(data), 3);
  BCEndTransaction(i, &id);
  BCGetSize(i, hash.data());
  BCGet(i, hash.data(), Bytes(data), 3);
  BCGetAllBlobHashesReset(i);
  BCGetAllBlobHashes(i, hash.data(), 77);
  BCDelete(i, hash.data());
  BCEndTransaction(i, &id);
  BCRepack(i);
  BCShutdown(i, true);
  BCDispose(i);

  using Words = std::vector<std::uint32_t>;
  Words kinds;
  for (const Words& event : Diagnostics().Events()) kinds.push_back(event[2]);
  EXPECT_EQ(kinds, (Words{14, 1, 1, 10, 2, 8, 3, 5, 6, 12, 13, 7, 3, 9}));
  const std::uint32_t ring = g_BlobControllerRingBuffer;
  EXPECT_EQ(Diagnostics().Events().at(4), (Words{ring, 1, 2, 2, 0, 0, 0}));
  EXPECT_EQ(Diagnostics().Events().at(5),
            (Words{ring, 1, 8, 0x90015098, 0x3CD24FB0, 0xD6963F7D, 0x28E17F72}));
  EXPECT_NE(ring, 0U);

  const auto ofHash = [](std::uint32_t record) {
    return Words{record, 0x90015098, 0x3CD24FB0, 0xD6963F7D, 0x28E17F72};
  };
  const auto index = static_cast<std::uint32_t>(i);
  const std::vector<Words> expected = {
      ofHash(0x4F000270),     {0x0F000264},           {0x0F000265, index}, {0x2F000266, index},
      {0x2F000267, index, 1}, {0x4F00027A, index, 2}, ofHash(0x4F00026C),  {0x4F00027C, index, 2},
      ofHash(0x4F00026E),     ofHash(0x4F00026F),     {0x2F00027E, index}, {0x4F000281, index, 77},
      ofHash(0x4F00026D),     {0x4F00027C, index, 2}, {0x2F000269, index}, {0x2F00026A, index, 1},
      {0x0F000283, index, 1}};
  EXPECT_EQ(Diagnostics().Records(), expected);
  EXPECT_EQ(OpenedStore().index, i + 1) << "no index comes back";
}

TEST(Calls, AFetchByAnotherSizeOrOfWhatIsNotThereChecksAndRaises) {
  FreshMachine();
  const OpenedStore store;
  ASSERT_TRUE(store.Commit(1, {"four", ""}));
  HashBytes hash = HashOf("four"), absent = HashOf("absent"), empty = HashOf("");
  EXPECT_EQ(BCGetSize(store.index, absent.data()), -1);
  EXPECT_EQ(BCGet(store.index, empty.data(), nullptr, 0), 0);
  EXPECT_TRUE(Diagnostics().raised.empty());
  std::string buffer(9, '.');
  EXPECT_EQ(BCGet(store.index, hash.data(), Bytes(buffer), 9), 0);
  EXPECT_EQ(buffer, "four.....");
  EXPECT_TRUE(Diagnostics().Has("warning GetBlob assert error: buffer size = 4 request size = 9"));
  EXPECT_TRUE(Diagnostics().Has("warning BlobController::Fsck number of blobs = 2"));
  Diagnostics().onRaise = [&] { EXPECT_EQ(BCGetSize(store.index, absent.data()), -1); };
  EXPECT_EQ(BCGet(store.index, absent.data(), Bytes(buffer), 9), 1);
  EXPECT_EQ(BCLastErrorCode(store.index), BLOBRING_ERROR_NOT_FOUND);
  EXPECT_EQ(Diagnostics().raised, std::vector<std::uint32_t>(2, 0x49380D));

  // A buffer that is too small: a second of waiting, then the store closes.
  const std::uint64_t slept = sim::Files().sleptMs;
  EXPECT_EQ(BCGet(store.index, hash.data(), Bytes(buffer), 3), 2);
  EXPECT_EQ(sim::Files().sleptMs - slept, 1000U);
  EXPECT_TRUE(
      Diagnostics().Has("warning BCGet threw an exception:std::exception hash=" + TextOf(hash)));
  EXPECT_EQ(BCGetAllBlobHashes(store.index, hash.data(), 0), 0);
  EXPECT_EQ(BCGetSize(store.index, hash.data()), -1);
  EXPECT_EQ(BCLastErrorCode(store.index), BLOBRING_ERROR_CLOSED);
  EXPECT_EQ(BCLoad(store.index), 0);
}

TEST(Calls, EnumerationEndsWhenTheStoreChanges) {
  FreshMachine();
  const OpenedStore store;
  HashBytes hash{};
  const auto next = [&] { return BCGetAllBlobHashes(store.index, hash.data(), 0); };
  EXPECT_EQ(next(), 0) << "before a reset";
  ASSERT_TRUE(store.Commit(1, {"a", "b", "c"}) && store.Start(2) && store.Store("pending"));
  const std::function<int()> changes[] = {
      [&] { return store.End(2); }, [&] { return BCRepack(store.index); },
      [&] { return BCLoad(store.index); }, [&] { return BCShutdown(store.index, false); }};
  for (const auto& change : changes) {
    EXPECT_GE(BCGetAllBlobHashesReset(store.index), 3);
    EXPECT_EQ(next(), 1);
    EXPECT_EQ(change(), 1);
    EXPECT_EQ(next(), 0);
  }
}

// Programs built with an earlier header, and with a later one.
TEST(Calls, StructuresHaveTheSizeThatTheCallerSays) {
  FreshMachine();
  const OpenedStore store;
  struct {
    BCStatistics known;
    unsigned char later[16], beyond;
  } grown;
  const auto byte = [&](std::size_t at) { return reinterpret_cast<unsigned char*>(&grown)[at]; };
  for (const std::size_t size :
       {offsetof(BCStatistics, damaged), sizeof(BCStatistics) + sizeof grown.later}) {
    std::fill_n(reinterpret_cast<unsigned char*>(&grown), sizeof grown,
                static_cast<unsigned char>(0xAA));
    grown.known.size = static_cast<std::uint32_t>(size);
    ASSERT_EQ(BCGetStatistics(store.index, &grown.known), 1);
    EXPECT_TRUE(grown.known.size == size && byte(size - 1) == 0 && byte(size) == 0xAA);
  }
  BCOptions options{};
  options.size = offsetof(BCOptions, mustExist);
  options.mustExist = options.readOnly = 1;  // beyond what the first version had
  const int index = BCOpen("/a", &options);
  EXPECT_EQ(StatisticsOf(index).readOnly, 0);
  BCDispose(index);
}

// Each store has its own text. Routine lines do not replace it.
TEST(Calls, LastErrorBelongsToItsStore) {
  FreshMachine();
  const int first = BCOpen("/s", nullptr), second = BCOpen("/b", nullptr);
  HashBytes hash{};
  EXPECT_EQ(BCPut(first, nullptr, 3, hash.data()) + BCDelete(second, nullptr), 0);
  EXPECT_EQ(BCFsck(first) + BCCheck(second), 1 + BLOBRING_CHECK_SOUND);
  EXPECT_EQ(LastErrorOf(first), "BCPut: data is null");
  char cut[6] = "-----";
  EXPECT_EQ(BCLastError(first, cut, 5) + BCLastError(first, nullptr, 0), 2 * 19);
  EXPECT_STREQ(cut, "BCPu");
  // The cause comes first; a text that is too long loses its end.
  const long long id = 1;
  for (unsigned char i = 0; i < 50; ++i) BCPut(first, &i, 1, hash.data());
  ASSERT_EQ(BCEndTransaction(first, &id), 1);
  sim::Files().disk.Write(sim::Files().disk.Lookup("/s/0.jrn"), 64 + 36, "X", 1);
  EXPECT_EQ(BCRepack(first), BLOBRING_NOT_REPACKED);
  EXPECT_EQ(BCLastError(first, nullptr, 0), 1023);
  EXPECT_EQ(LastErrorOf(first).find("what is on disk is not what a store wrote: Blob::"), 0U);
  BCDispose(first);
  EXPECT_EQ(BCNextHash(first, nullptr, hash.data()), -1);
  EXPECT_EQ(LastErrorOf(first).find("BCNextHash: no store has the index = "), 0U);
  EXPECT_EQ(LastErrorOf(second), "BCDelete: hash is null");
  BCDispose(second);
}

// The outer call goes on, whatever the host's function calls.
TEST(Calls, AreRefusedInsideAnotherCall) {
  FreshMachine();
  const OpenedStore store;
  ASSERT_TRUE(store.Commit(1, {""}));
  struct Inside {
    int index;
    std::vector<int> results;
    std::string text;
  } inside{store.index, {}, {}};
  const auto callBack = [](void* context, int, std::uint64_t, std::uint64_t) {
    Inside& in = *static_cast<Inside*>(context);
    in.results = {BCDispose(in.index),      BCOpen("/b", nullptr),
                  BCInitialize(u"/b"),      BCShutdown(in.index, true),
                  BCLoad(in.index),         FilterException(in.index, 1, nullptr),
                  BCLastErrorCode(in.index)};
    in.text = LastErrorOf(in.index);
    return 0;
  };
  BCSetProgress(store.index, callBack, &inside);
  EXPECT_EQ(BCCheck(store.index), BLOBRING_CHECK_SOUND);
  EXPECT_EQ(inside.results, (std::vector<int>{0, -1, -1, 0, 0, 0, BLOBRING_ERROR_REFUSED}));
  EXPECT_EQ(inside.text.find("BCDispose: called from inside another call\nBCOpen: called"), 0U);

  // A refusal is traced once, or the sink would call again for it.
  inside.results.clear();
  BlobringHostSetTraceSink(
      [](void* context, int, const char*, const char*) {
        Inside& in = *static_cast<Inside*>(context);
        in.results.push_back(BCDispose(in.index) + BCOpen("/b", nullptr));
      },
      &inside);
  EXPECT_EQ(BCPut(store.index, nullptr, 1, nullptr), 0);
  Diagnostics() = sim::SimDiagnostics();
  EXPECT_EQ(inside.results, std::vector<int>(3, -1));

  // A host that takes an access violation does not return to the outer call.
  const auto takeException = [](void* context, int, std::uint64_t, std::uint64_t) {
    Inside& in = *static_cast<Inside*>(context);
    unsigned char next[BLOBRING_HASH_SIZE];
    in.results = {FilterException(in.index, EXCEPTION_ACCESS_VIOLATION, nullptr),
                  BCNextHash(in.index, nullptr, next), BCFsck(in.index)};
    return 1;
  };
  sim::Files().disk.Write(sim::Files().disk.Lookup("/s/0.jrn"), 64, "\1", 1);
  BCSetProgress(store.index, takeException, &inside);
  Diagnostics().Clear();
  BCCheck(store.index);
  EXPECT_EQ(inside.results, (std::vector<int>{1, 1, 0}));
  EXPECT_EQ(Diagnostics().Records().back().at(0), 0x0F000262U);
}

}  // namespace
}  // namespace test
