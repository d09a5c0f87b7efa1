// A journal of many transactions, sound and with any one of them damaged:
// whatever a load does at a time, what comes before the first fault stays, and
// the fault is reported as if nothing came after it.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>

#include "tests/support/JournalBytes.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using Policy = OpenedStore::Policy;
using sim::Call;
using sim::Diagnostics;

constexpr char kJournal[] = "/s/0.jrn";

// size bytes that no other name gives.
std::string Data(const std::string& name, std::size_t size) {
  std::string data;
  while (data.size() < size) data += name + '.';
  data.resize(size);
  return data;
}

struct Transaction {
  std::vector<std::string> stores, deletes;
  std::vector<std::string> records;  // instead of those of stores and deletes
  std::string Bytes(int id) const;
  std::vector<std::string> Records(int id) const;
};

std::vector<std::string> Transaction::Records(int id) const {
  if (!records.empty()) return records;
  std::vector<std::string> made;
  for (const std::string& blob : stores) made.push_back(StoreRecord(id, blob));
  for (const std::string& blob : deletes) made.push_back(DeleteRecord(id, blob));
  return made;
}

std::string Transaction::Bytes(int id) const {
  return JournalBytes().Transaction(id, Records(id)).Bytes().substr(24);
}

// A journal and what is known of it: transaction i has the id i + 1.
struct Journal {
  std::vector<Transaction> transactions;

  std::string Bytes() const {
    JournalBytes bytes;
    for (std::size_t i = 0; i < transactions.size(); ++i)
      bytes.Transaction(static_cast<int>(i) + 1, transactions[i].Records(static_cast<int>(i) + 1));
    return bytes.Bytes();
  }
  // Where transaction i starts, or where the last one ends.
  std::size_t StartOf(std::size_t i) const {
    std::size_t at = 24;
    for (std::size_t k = 0; k < i; ++k) at += transactions[k].Bytes(static_cast<int>(k) + 1).size();
    return at;
  }
  // Records of the transactions before i.
  std::uint32_t CountBefore(std::size_t i) const {
    std::size_t count = 0;
    for (std::size_t k = 0; k < i; ++k) count += transactions[k].Records(static_cast<int>(k) + 1).size() + 2;
    return static_cast<std::uint32_t>(count);
  }
  // The blobs after the transactions before i.
  std::set<std::string> BlobsBefore(std::size_t i) const {
    std::set<std::string> blobs;
    for (std::size_t k = 0; k < i; ++k) {
      blobs.insert(transactions[k].stores.begin(), transactions[k].stores.end());
      for (const std::string& blob : transactions[k].deletes) blobs.erase(blob);
    }
    return blobs;
  }
};

// Short ones with some that do not fit a read of any usual size; deletes of
// what earlier ones have stored, and stores of what was deleted.
Journal Mixed(std::size_t count, std::size_t largest) {
  Journal journal;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string name = std::to_string(i);
    Transaction& transaction = journal.transactions.emplace_back();
    if (i % 9 == 8) {
      transaction.deletes = {Data(std::to_string(i - 1), 1 + 37 * (i - 1)), Data("never", i)};
      continue;
    }
    transaction.stores = {Data(name, 1 + 37 * i)};
    if (i % 9 == 0 && i > 0) transaction.stores.push_back(Data(std::to_string(i - 2), 1 + 37 * (i - 2)));
    if (i % 5 == 1) transaction.stores.push_back("");
    if (i % 6 == 2) transaction.stores.push_back(Data(name + " large", largest / (1 + i % 4)));
  }
  return journal;
}

void ExpectBlobs(const OpenedStore& store, const std::set<std::string>& blobs) {
  std::vector<std::string> all = store.All();
  std::sort(all.begin(), all.end());
  EXPECT_TRUE(all == std::vector<std::string>(blobs.begin(), blobs.end())) << all.size() << " of " << blobs.size();
}

TEST(ManyTransactions, AreThereAgainAfterTheNextLoad) {
  for (const std::size_t count : {1U, 2U, 3U, 15U, 16U, 17U, 33U, 100U}) {
    for (const std::size_t largest : {500U, 100'000U, 900'000U}) {
      if (count == 100 && largest == 900'000) continue;
      SCOPED_TRACE(testing::Message() << count << " transactions, blobs up to " << largest);
      FreshMachine();
      const Journal journal = Mixed(count, largest);
      {
        const OpenedStore store;
        for (std::size_t i = 0; i < count; ++i) {
          ASSERT_TRUE(store.Start(static_cast<int>(i) + 1));
          for (const std::string& blob : journal.transactions[i].stores) ASSERT_TRUE(store.Store(blob));
          for (const std::string& blob : journal.transactions[i].deletes) store.Delete(blob);
          ASSERT_TRUE(store.End(static_cast<int>(i) + 1));
        }
      }
      const std::string written = FileBytes(kJournal);
      Diagnostics().Clear();
      const OpenedStore store;
      ASSERT_TRUE(store.loaded);
      EXPECT_TRUE(Diagnostics().lines.empty()) << Diagnostics().Text();
      ExpectBlobs(store, journal.BlobsBefore(count));
      EXPECT_TRUE(FileBytes(kJournal) == written);
      EXPECT_EQ(BCFsck(store.index), 1);
    }
  }
}

// Lines of a load that are about a file's contents.
std::vector<std::string> Reports() {
  std::vector<std::string> reports;
  for (const sim::TraceLine& line : Diagnostics().lines) {
    if (line.text.find("BlobFile::Load") == 0 || line.text.find("File") == 0) reports.push_back(line.text);
  }
  return reports;
}

// What a load makes of a journal that is good as far as transaction `good`,
// and of the next one.
void ExpectLoaded(const Journal& journal, std::size_t good, const std::string& bytes,
                  const std::vector<std::string>& reports) {
  FreshMachine();
  { const OpenedStore fresh; }
  SetFile(kJournal, bytes);
  Diagnostics().Clear();
  const OpenedStore store;
  ASSERT_TRUE(store.loaded);
  const std::vector<std::string> found = Reports();
  ASSERT_EQ(found.size(), reports.size()) << Diagnostics().Text();
  for (std::size_t i = 0; i < found.size(); ++i) EXPECT_EQ(found[i].find(reports[i]), 0U) << found[i];
  ExpectBlobs(store, journal.BlobsBefore(good));

  // The next transaction follows.
  const std::size_t end = journal.StartOf(good);
  const std::string header =
      JournalBytes().Count(journal.CountBefore(good)).End(static_cast<std::uint32_t>(end)).Bytes();
  const std::string mended = FileBytes(kJournal);
  EXPECT_EQ(mended.substr(4, 4), header.substr(4, 4));
  EXPECT_EQ(mended.substr(20, 4), header.substr(20, 4));
  EXPECT_TRUE(mended.substr(24, end - 24) == bytes.substr(24, end - 24));
}

std::string Flipped(std::string bytes, std::size_t at) {
  bytes.at(at) = static_cast<char>(bytes.at(at) ^ 1);
  return bytes;
}

std::string About(const std::string& what, std::size_t transaction) {
  return "BlobFile::Load " + what + " id=" + std::to_string(transaction + 1) + " file=/s/0.jrn";
}

TEST(ManyTransactions, BeforeADamagedOneStayAndThatOneIsReported) {
  const Journal journal = Mixed(20, 150'000);
  const std::string good = journal.Bytes();
  const std::string badHash = "(start transaction) corruption, bad hash value";
  for (std::size_t i = 0; i < 20; ++i) {
    SCOPED_TRACE(testing::Message() << "transaction " << i);
    const std::size_t start = journal.StartOf(i), end = journal.StartOf(i + 1);
    const struct {
      const char* name;
      std::string bytes;
      std::string report;
    } rows[] = {
        {"first byte", Flipped(good, start + 40), About(badHash, i)},
        {"last byte", Flipped(good, end - 17), About(badHash, i)},
        {"a byte of its digest", Flipped(good, start + 16 + 8 + 5), About(badHash, i)},
        {"its length", Flipped(good, start + 16 + 4), About(badHash, i)},
        {"no length", With(good, start + 16 + 4, std::string(4, '\0')), "BlobFile::Load EOF error during validation"},
        {"a length beyond the file", With(good, start + 16 + 4, Hex("ffffff7f")), "File::Read didn't read the entire"},
        {"the largest length", With(good, start + 16 + 4, Hex("ffffffff")), "File::Read didn't read the entire"},
        {"an end instead of the start", With(good, start, OpHeader(3, static_cast<int>(i) + 1)),
         About("corruption, end transaction without start transaction", i)},
        {"a start instead of the end", With(good, end - 16, OpHeader(2, static_cast<int>(i) + 1)),
         About("corruption, nested transaction", i)},
        {"a store instead of the end", With(good, end - 16, OpHeader(0, static_cast<int>(i) + 1)),
         About("corruption, record outside the digest of its transaction", i)},
        {"an unknown op at the end", With(good, end - 16, OpHeader(7, 0)), "BlobFile::Load() unsupported op=7"},
        {"another fault two transactions on", Flipped(Flipped(good, start + 40), std::min(end + 60, good.size() - 1)),
         About(badHash, i)},
    };
    for (const auto& row : rows) {
      SCOPED_TRACE(row.name);
      ExpectLoaded(journal, i, row.bytes, {row.report});
    }
    const std::string cutOff = "BlobFile::Load corruption, header endOffset=" + std::to_string(good.size());
    ExpectLoaded(journal, i, good.substr(0, end - 1), {cutOff, "File"});
    ExpectLoaded(journal, i, good.substr(0, start + 50), {cutOff, "File"});
  }
}

// Signed as they stand, so that no digest gives them away.
TEST(ManyTransactions, BeforeOneOfOtherRecordsStayAndThatOneIsReported) {
  const struct {
    std::vector<std::string> records;
    const char* report;
  } rows[] = {
      {{OpHeader(0, 3) + std::string(16, 'h') + Hex("ffffffff") + "x"},
       "BlobFile::Load corruption, record runs past its transaction"},
      {{DeleteRecord(3, "a"), OpHeader(0, 3)}, "BlobFile::Load corruption, record runs past its transaction"},
      {{StartRecord(7, DeleteRecord(7, "a")), EndRecord(7)}, "BlobFile::Load corruption, nested transaction id=7"},
      {{StoreRecord(3, "a"), EndRecord(7), StoreRecord(3, "b")},
       "BlobFile::Load corruption, transaction ends before its length id=7"},
      {{DeleteRecord(3, "a"), OpHeader(-1, 3)}, "BlobFile::Load() unsupported op=-1"},
  };
  for (const auto& row : rows) {
    for (const std::size_t place : {0U, 1U, 15U, 16U, 19U}) {
      SCOPED_TRACE(testing::Message() << row.report << " at " << place);
      Journal journal = Mixed(20, 5000);
      journal.transactions[place] = {{}, {}, row.records};
      ExpectLoaded(journal, place, journal.Bytes(), {row.report});
    }
  }
}

TEST(ManyTransactions, CountAsFarAsTheHeaderCounts) {
  const Journal journal = Mixed(20, 100'000);
  const std::string good = journal.Bytes();
  const auto counting = [&](std::uint32_t count) {
    return With(good, 4, JournalBytes().Count(count).Bytes().substr(4, 4));
  };
  for (std::size_t i = 0; i < 20; ++i) {
    SCOPED_TRACE(i);
    const std::uint32_t before = journal.CountBefore(i), records = journal.CountBefore(i + 1) - before - 2;
    ExpectLoaded(journal, i, counting(before), {});
    ExpectLoaded(journal, i, counting(before + 1), {});
    for (std::uint32_t n = 1; n <= records; ++n)
      ExpectLoaded(journal, i, counting(before + 1 + n),
                   {"BlobFile::Load() failed to find the end of the transaction (transactions=" + std::to_string(n) +
                    " entries=0 file=/s/0.jrn)"});
  }
  ExpectLoaded(journal, 20, good, {});
  for (const std::uint32_t more : {1U, 100U})
    ExpectLoaded(journal, 20, counting(journal.CountBefore(20) + more),
                 {"BlobFile::Load() didn't process all the entries entries=" + std::to_string(more)});
  // endOffset does not decide what is read.
  for (const std::size_t end : {std::size_t{24}, journal.StartOf(7), journal.StartOf(7) + 50, good.size() - 1})
    ExpectLoaded(journal, 20, With(good, 20, JournalBytes().End(static_cast<std::uint32_t>(end)).Bytes().substr(20, 4)),
                 {});
}

// A lone record between two runs of transactions.
TEST(ManyTransactions, GoOnBehindARecordOutsideThem) {
  const Journal journal = Mixed(20, 1000);
  JournalBytes bytes;
  for (const int round : {0, 1}) {
    for (std::size_t i = 0; i < 20; ++i) bytes.Transaction(static_cast<int>(i) + 1, journal.transactions[i].Records(1));
    if (round == 0) bytes.Raw(StoreRecord(5, "lone")).Counting(1);
  }
  FreshMachine();
  { const OpenedStore fresh; }
  SetFile(kJournal, bytes.Bytes());
  const OpenedStore store;
  std::set<std::string> blobs = journal.BlobsBefore(20);
  blobs.insert("lone");
  ExpectBlobs(store, blobs);
}

// One read or one allocation fails, or from one on all do, wherever it is: all
// is there or the load fails and leaves the files as they are.
TEST(ManyTransactions, AreAllThereOrTheLoadFails) {
  const Journal journal = Mixed(20, 90'000);
  const std::string good = journal.Bytes();
  const std::set<std::string> blobs = journal.BlobsBefore(20);
  const std::function<std::uint64_t()> reads = [] { return sim::Files().fired(); };
  const std::function<std::uint64_t()> allocations = [] { return sim::Memory().refusedAllocs(); };
  for (const bool forGood : {false, true}) {
    for (const bool ofReads : {false, true}) {
      bool fired = true;
      int failed = 0, survived = 0;
      for (std::uint64_t n = 1; fired; ++n) {
        SCOPED_TRACE(testing::Message() << (ofReads ? "read " : "allocation ") << n
                                        << (forGood ? " and all later" : ""));
        FreshMachine();
        { const OpenedStore fresh; }
        SetFile(kJournal, good);
        const int index = BCInitialize(u"/s");
        BCAddPackDir(index, u"/s");
        BCSetDamagePolicy(index, BLOBRING_DAMAGE_KEEP);
        const std::uint64_t before = ofReads ? reads() : allocations();
        if (ofReads) sim::Files().FailCallOf(Call::ReadFile, n, sim::Fault::Error, forGood);
        if (!ofReads) sim::Memory().RefuseAlloc(n, forGood);
        const bool loaded = BCLoad(index) == 1;
        fired = (ofReads ? reads() : allocations()) != before;
        sim::Files().Heal();
        sim::Memory().RefuseAlloc(0);
        ++(loaded ? survived : failed);
        EXPECT_TRUE(FileBytes(kJournal) == good);
        if (loaded) {
          EXPECT_EQ(static_cast<std::size_t>(BCGetAllBlobHashesReset(index)), blobs.size());
        }
        BCDispose(index);
        const OpenedStore store(1, Policy::Keep);
        ExpectBlobs(store, blobs);
      }
      EXPECT_GT(failed, 0);
      EXPECT_GT(survived, forGood ? 0 : 1) << "what fails once and is not needed stops nobody";
    }
  }
}

struct Progress {
  std::vector<std::uint64_t> done;
  static int Note(void* context, int, std::uint64_t done, std::uint64_t total) {
    EXPECT_LE(done, total);
    static_cast<Progress*>(context)->done.push_back(done);
    return 0;
  }
};

TEST(ManyTransactions, AreReportedAsProgressThatNeverGoesBack) {
  Journal journal;
  for (int i = 0; i < 24; ++i) journal.transactions.push_back({{Data(std::to_string(i), 500'000)}, {}, {}});
  const std::string good = journal.Bytes();
  for (const std::size_t damaged : {0U, 1U, 9U, 17U, 24U}) {
    SCOPED_TRACE(damaged);
    FreshMachine();
    { const OpenedStore fresh; }
    SetFile(kJournal, damaged < 24 ? Flipped(good, journal.StartOf(damaged) + 1000) : good);
    Progress progress;
    const int index = BCInitialize(u"/s");
    BCAddPackDir(index, u"/s");
    BCSetProgress(index, &Progress::Note, &progress);
    ASSERT_EQ(BCLoad(index), 1);
    BCDispose(index);
    ASSERT_FALSE(progress.done.empty());
    progress.done.erase(progress.done.begin());  // the pack's
    EXPECT_GE(progress.done.size(), journal.StartOf(damaged) >> 20);
    for (std::size_t i = 1; i < progress.done.size(); ++i) {
      const bool isEnd = i + 1 == progress.done.size();
      EXPECT_TRUE(isEnd || progress.done[i] >= progress.done[i - 1] + (1U << 20)) << i;
    }
    EXPECT_EQ(progress.done.back(), journal.StartOf(damaged)) << "all that is left of the journal";
  }
}

// Not a platform call or a large piece of memory for each.
TEST(ManyTransactions, AreReadInLargePiecesOfBoundedMemory) {
  const struct {
    int count;
    std::size_t size;
    std::uint64_t mostReads;
  } rows[] = {{5000, 100, 20}, {300, 5000, 20}, {60, 300'000, 60 * 7}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.size);
    Journal journal;
    for (int i = 0; i < row.count; ++i) journal.transactions.push_back({{Data(std::to_string(i), row.size)}, {}, {}});
    FreshMachine();
    { const OpenedStore fresh; }
    SetFile(kJournal, journal.Bytes());
    const std::uint64_t readsBefore = sim::Files().calls(Call::ReadFile);
    sim::Memory().ResetPeak();
    const std::size_t before = sim::Memory().peakBytes();
    const OpenedStore store;
    EXPECT_LT(sim::Files().calls(Call::ReadFile) - readsBefore, row.mostReads);
    EXPECT_LT(sim::Memory().peakBytes() - before, 1536U * 1024 + static_cast<std::size_t>(row.count) * 400);
    EXPECT_EQ(store.All().size(), static_cast<std::size_t>(row.count));
  }
}

// Deletes are the smallest records: however they are spread, a load takes no
// more than ten times the file for them.
TEST(ManyTransactions, TakeMemoryInProportion) {
  const std::vector<std::vector<int>> rows = {{20000, 1}, {10000, 10000}, {1, 20000}, std::vector<int>(16, 1500), [] {
                                                std::vector<int> counts(40, 500);
                                                counts[0] = 20000;
                                                return counts;
                                              }()};
  for (const std::vector<int>& counts : rows) {
    SCOPED_TRACE(testing::Message() << counts.size() << " transactions, the first of " << counts[0]);
    JournalBytes bytes;
    int blob = 0;
    for (const int count : counts) {
      std::vector<std::string> records;
      for (int i = 0; i < count; ++i) records.push_back(DeleteRecord(1, std::to_string(++blob)));
      bytes.Transaction(1, records);
    }
    FreshMachine();
    { const OpenedStore fresh; }
    const std::string file = bytes.Bytes();
    SetFile(kJournal, file);
    sim::Memory().ResetPeak();
    const std::size_t before = sim::Memory().peakBytes();
    const OpenedStore store;
    EXPECT_TRUE(store.loaded);
    EXPECT_LT(sim::Memory().peakBytes() - before, 80U * 1024 + 10 * file.size());
  }
}

}  // namespace
}  // namespace test
