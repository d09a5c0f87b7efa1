// The exported calls: results, warnings, events and numeric records.
#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "platform/Win32.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using sim::Diagnostics;

unsigned char* Bytes(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}

TEST(Calls, TheDigestWorksWithoutAStoreAndIsTraced) {
  FreshMachine();
  HashBytes digest{};
  EXPECT_EQ(BCMD5ChkSumInt(nullptr, 1, digest.data()) + BCMD5ChkSumInt(digest.data(), 1, nullptr),
            0);
  EXPECT_EQ(BCMD5ChkSum(nullptr, 1, nullptr), 1);
  Diagnostics().Clear();
  EXPECT_EQ(BCMD5ChkSum(reinterpret_cast<const unsigned char*>("abc"), 3, digest.data()), 1);
  const std::array<std::uint32_t, 4> words = {0x90015098, 0x3CD24FB0, 0xD6963F7D, 0x28E17F72};
  EXPECT_EQ(Diagnostics().events.at(0).kind, 14U);
  EXPECT_EQ(Diagnostics().events.at(0).values, words);
  EXPECT_EQ(Diagnostics().records.at(0).id, 0x4F000270U);
  EXPECT_EQ(Diagnostics().records.at(0).values, words);
}

TEST(Calls, AnUnknownIndexGivesTheFailureValueAndAWarning) {
  FreshMachine();
  constexpr int kNone = 1 << 20;
  unsigned char hash[16] = {};
  unsigned char data[1] = {};
  BCBlob blob = {data, 1, {}};
  const long long id = 1;
  const struct {
    const char* call;
    int result, failure;
  } rows[] = {
      {"BCAddPackDir", BCAddPackDir(kNone, u"/s"), 0},
      {"BCSetDamagePolicy", BCSetDamagePolicy(kNone, 1), 0},
      {"BCLoad", BCLoad(kNone), 0},
      {"BCStore", BCStore(kNone, hash, data, 1), 0},
      {"BCPut", BCPut(kNone, data, 1, hash), 0},
      {"BCPutMany", BCPutMany(kNone, &blob, 1), 0},
      {"BCGet", BCGet(kNone, hash, data, 1), 2},
      {"BCGetSize", BCGetSize(kNone, hash), -2},
      {"BCDelete", BCDelete(kNone, hash), 0},
      {"BCGetAllBlobHashesReset", BCGetAllBlobHashesReset(kNone), 0},
      {"BCGetAllBlobHashes", BCGetAllBlobHashes(kNone, hash, 0), 0},
      {"BCStartTransaction", BCStartTransaction(kNone, &id), 0},
      {"BCEndTransaction", BCEndTransaction(kNone, &id), 0},
      {"BCRepack", BCRepack(kNone), 0},
      {"BCFsck", BCFsck(kNone), 0},
      {"BCShutdown", BCShutdown(kNone, true), 0},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.result, row.failure) << row.call;
    EXPECT_TRUE(
        Diagnostics().HasWarning(std::string(row.call) + ": no store has the index = 1048576"))
        << row.call;
  }
  Diagnostics().Clear();
  EXPECT_EQ(BCDispose(kNone), 1);
  EXPECT_TRUE(Diagnostics().HasWarning("BCDispose with index = 1048576"));
  EXPECT_TRUE(Diagnostics().HasWarning("BCDispose has been called index = 1048576"));
  EXPECT_EQ(FilterException(kNone, 0xC0000005U, nullptr), 1);
  EXPECT_EQ(BCInitialize(nullptr), -1);
  EXPECT_EQ(BCCancelTransaction() + BCCacheClear() + BCCacheStats(), 3);
}

TEST(Calls, UnsoundArgumentsAreRefusedWithAWarningAndWriteNothing) {
  FreshMachine();
  const OpenedStore store;
  const int i = store.index;
  unsigned char hash[16] = {};
  unsigned char data[1] = {};
  BCBlob blobs[2] = {{data, 1, {}}, {nullptr, 1, {}}};
  const long long id = 1;
  ASSERT_EQ(BCStartTransaction(i, &id), 1);
  Diagnostics().Clear();
  EXPECT_EQ(BCStore(i, nullptr, data, 1), 0);
  EXPECT_EQ(BCStore(i, hash, nullptr, 1), 0);
  EXPECT_EQ(BCStore(i, hash, data, -1), 0);
  EXPECT_EQ(BCPut(i, data, 1, nullptr), 0);
  EXPECT_EQ(BCPut(i, nullptr, 1, hash), 0);
  EXPECT_EQ(BCPutMany(i, nullptr, 1), 0);
  EXPECT_EQ(BCGet(i, nullptr, data, 1), 2);
  EXPECT_EQ(BCGet(i, hash, nullptr, 1), 2);
  EXPECT_EQ(BCGet(i, hash, data, -5), 2);
  EXPECT_EQ(BCGetSize(i, nullptr), -2);
  EXPECT_EQ(BCDelete(i, nullptr), 0);
  EXPECT_EQ(BCGetAllBlobHashes(i, nullptr, 0), 0);
  EXPECT_EQ(BCStartTransaction(i, nullptr), 0);
  EXPECT_EQ(BCEndTransaction(i, nullptr), 0);
  EXPECT_EQ(BCAddPackDir(i, nullptr), 0);
  EXPECT_EQ(BCSetDamagePolicy(i, 2), 0);
  EXPECT_EQ(Diagnostics().lines.size(), 16U) << Diagnostics().Text();
  EXPECT_TRUE(Diagnostics().HasWarning("BCStore: size = -1 is negative"));
  EXPECT_EQ(BCPutMany(i, blobs, 2), 1) << "what comes before the unsound one is stored";
  EXPECT_EQ(BCEndTransaction(i, &id), 1);
  EXPECT_EQ(BCGetAllBlobHashesReset(i), 1);
}

TEST(Calls, EveryCallLeavesItsEventsAndRecords) {
  FreshMachine();
  HashBytes hash = HashOf("abc");
  std::string data = "abc";
  const std::array<std::uint32_t, 4> words = {0x90015098, 0x3CD24FB0, 0xD6963F7D, 0x28E17F72};
  Diagnostics().Clear();
  const int i = BCInitialize(u"/s");
  const auto index = static_cast<std::uint32_t>(i);
  BCAddPackDir(i, u"/s");
  BCLoad(i);
  const long long id = 0x100000002;
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

  const std::vector<std::uint32_t> kinds = {1, 1, 10, 2, 8, 3, 5, 6, 12, 13, 7, 3, 9};
  std::vector<std::uint32_t> seen;
  for (const sim::RingEvent& event : Diagnostics().events) seen.push_back(event.kind);
  EXPECT_EQ(seen, kinds);
  EXPECT_EQ(Diagnostics().events[3].values[0], 2U) << "the low half of the id";
  EXPECT_EQ(Diagnostics().events[4].values, words);
  EXPECT_EQ(Diagnostics().events[2].ring, g_BlobControllerRingBuffer);
  EXPECT_NE(g_BlobControllerRingBuffer, 0U);

  const std::vector<std::vector<std::uint32_t>> records = {
      {0x0F000264},
      {0x0F000265, index},
      {0x2F000266, index},
      {0x2F000267, index, 1},
      {0x4F00027A, index, 2},
      {0x4F00026C, words[0], words[1], words[2], words[3]},
      {0x4F00027C, index, 2},
      {0x4F00026E, words[0], words[1], words[2], words[3]},
      {0x4F00026F, words[0], words[1], words[2], words[3]},
      {0x2F00027E, index},
      {0x4F000281, index, 77},
      {0x4F00026D, words[0], words[1], words[2], words[3]},
      {0x4F00027C, index, 2},
      {0x2F000269, index},
      {0x2F00026A, index, 1},
      {0x0F000283, index, 1},
  };
  ASSERT_EQ(Diagnostics().records.size(), records.size());
  for (std::size_t r = 0; r < records.size(); ++r) {
    const sim::NumericRecord& record = Diagnostics().records[r];
    std::vector<std::uint32_t> values = {record.id};
    values.insert(values.end(), record.values.begin(), record.values.begin() + record.count);
    EXPECT_EQ(values, records[r]) << r;
  }
}

TEST(Calls, AFetchByAnotherSizeOrOfWhatIsNotThereChecksAndRaises) {
  FreshMachine();
  const OpenedStore store;
  ASSERT_TRUE(store.Commit(1, {"four", ""}));
  HashBytes hash = HashOf("four"), absent = HashOf("absent"), empty = HashOf("");
  EXPECT_EQ(BCGetSize(store.index, absent.data()), -1);
  EXPECT_EQ(BCGetSize(store.index, empty.data()), 0);
  EXPECT_EQ(BCGet(store.index, empty.data(), nullptr, 0), 0);
  std::string buffer(9, '.');
  EXPECT_EQ(BCGet(store.index, hash.data(), Bytes(buffer), 4), 0);
  EXPECT_EQ(buffer, "four.....");
  EXPECT_TRUE(Diagnostics().raised.empty());

  buffer.assign(9, '.');
  EXPECT_EQ(BCGet(store.index, hash.data(), Bytes(buffer), 9), 0);
  EXPECT_EQ(buffer, "four.....");
  EXPECT_TRUE(Diagnostics().HasWarning("GetBlob assert error: buffer size = 4 request size = 9"));
  EXPECT_TRUE(Diagnostics().HasWarning("BlobController::Fsck number of blobs = 2"));
  EXPECT_EQ(BCGet(store.index, absent.data(), Bytes(buffer), 9), 1);
  EXPECT_TRUE(Diagnostics().HasWarning("GetBlob assert error: buffer size = 9 request size = 9"));
  EXPECT_EQ(Diagnostics().raised, std::vector<std::uint32_t>(2, 0x49380D));

  // A buffer that is too small: a second of waiting, then the store closes.
  const std::uint64_t slept = sim::Files().sleptMs;
  EXPECT_EQ(BCGet(store.index, hash.data(), Bytes(buffer), 3), 2);
  EXPECT_EQ(sim::Files().sleptMs - slept, 1000U);
  EXPECT_TRUE(Diagnostics().HasError("BlobPair::buffer.size(3) != size(4)"));
  EXPECT_TRUE(
      Diagnostics().HasError("BlobController::GetBlob() threw an exception BlobPair::Read : too "
                             "large size file=/s/0.jrn offset=64"));
  EXPECT_TRUE(
      Diagnostics().HasWarning("BCGet threw an exception:std::exception hash=" + TextOf(hash)));
  EXPECT_EQ(BCGetSize(store.index, hash.data()), -1) << "closed";
  EXPECT_FALSE(store.Store("x"));
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

TEST(Calls, TheExceptionFilterChecksAfterAnAccessViolationOnly) {
  FreshMachine();
  const OpenedStore store;
  EXCEPTION_RECORD record{};
  record.ExceptionAddress = reinterpret_cast<void*>(0x1234);
  _EXCEPTION_POINTERS info{&record, nullptr};
  Diagnostics().Clear();
  EXPECT_EQ(FilterException(store.index, 0x49380D, &info), 0);
  EXPECT_EQ(Diagnostics().Text(), "warning FilterException() except: unknown exception 4798477\n");
  EXPECT_EQ(FilterException(store.index, 0xC0000005U, &info), 1);
  EXPECT_TRUE(Diagnostics().HasWarning("except: Access Violation 0x1234"));
  EXPECT_TRUE(Diagnostics().HasWarning("BlobController::Fsck number of blobs = 0"));
  EXPECT_EQ(Diagnostics().records.back().id, 0x0F000262U);
  EXPECT_EQ(Diagnostics().records.back().values[0], 0x1234U);
}

TEST(Calls, PutComputesWhatStoreIsGiven) {
  std::vector<std::string> blobs;
  for (std::size_t size : {0U, 1U, 63U, 64U, 65U, 4000U, 70000U, 524288U, 524289U, 1200000U, 5U})
    blobs.emplace_back(size, static_cast<char>('a' + blobs.size()));
  std::set<std::string> journals;
  for (const char* by : {"BCStore", "BCPut", "BCPutMany"}) {
    SCOPED_TRACE(by);
    FreshMachine();
    const OpenedStore store;
    std::vector<BCBlob> batch;
    for (std::string& blob : blobs)
      batch.push_back({Bytes(blob), static_cast<int>(blob.size()), {}});
    ASSERT_TRUE(store.Start(3));
    if (by[2] == 'S') {
      for (const std::string& blob : blobs) EXPECT_TRUE(store.Store(blob));
    } else if (by[5] == '\0') {
      for (BCBlob& blob : batch) EXPECT_EQ(BCPut(store.index, blob.data, blob.size, blob.hash), 1);
    } else {
      EXPECT_EQ(BCPutMany(store.index, batch.data(), static_cast<int>(batch.size())),
                static_cast<int>(blobs.size()));
    }
    for (std::size_t b = 0; b < blobs.size() && by[2] == 'P'; ++b)
      EXPECT_TRUE(std::equal(batch[b].hash, std::end(batch[b].hash), HashOf(blobs[b]).begin()))
          << b;
    ASSERT_TRUE(store.End(3));
    journals.insert(FileBytes("/s/0.jrn"));
    for (const std::string& blob : blobs) EXPECT_TRUE(store.Has(blob)) << blob.size();
  }
  EXPECT_EQ(journals.size(), 1U);
}

}  // namespace
}  // namespace test
