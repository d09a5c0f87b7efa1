#include "tests/sim/LostTail.h"

#include <algorithm>
#include <string>
#include <vector>

#include "tests/sim/Session.h"
#include "tests/support/OpenedStore.h"

namespace explore {

namespace {

using sim::Bytes;
constexpr std::size_t kSector = 512;
const std::string kJournalPath = "/s/0.jrn";

struct Journal {
  Bytes bytes;
  std::vector<std::size_t> ends{test::kHeaderSize};  // of each transaction
};

bool IsZero(const Bytes& bytes, std::size_t from, std::size_t to) {
  return bytes.find_first_not_of('\0', from) >= std::min(to, bytes.size());
}

// The process is killed, so that the journal keeps the space that it blanked.
Journal MakeJournal(Random& random) {
  test::FreshMachine();
  test::OpenedStore store(1, test::OpenedStore::Policy::Keep);
  Journal journal;
  std::string last = "0";
  for (unsigned id = 1, count = 20 + random.Below(50); id <= count; ++id) {
    Require(store.Start(id), "a transaction cannot be started");
    for (unsigned n = 1 + random.Below(3); n > 0; --n) {
      std::string blob;
      for (unsigned size = random.Below(2) * 1200 + random.Below(120); blob.size() < size;)
        blob.push_back(static_cast<char>(random.Next()));
      Require(n == 2 ? store.Delete(last) || true : store.Store(blob), "a blob cannot be stored");
      last = blob;
    }
    Require(store.End(id), "a commit fails");
    const std::size_t end = test::Get32(test::FileBytes(kJournalPath), 20);
    if (end > journal.ends.back()) journal.ends.push_back(end);
  }
  journal.bytes = test::FileBytes(kJournalPath);
  sim::Files().Kill();
  return journal;
}

// Of the records that a journal has from `start` on, the places where they begin and, of stores,
// where the data does.
struct Record {
  std::size_t begin, data, end;
};
std::vector<Record> RecordsFrom(const Bytes& bytes, std::size_t start, std::size_t end) {
  std::vector<Record> records;
  for (std::size_t at = start; at < end; at = records.back().end) {
    const std::uint32_t op = test::Get32(bytes, at);
    const std::size_t head = op == test::kStoreOp    ? test::kStoreSize
                             : op == test::kDeleteOp ? test::kDeleteSize
                             : op == test::kStartOp  ? test::kStartSize
                                                     : test::kOpSize;
    const std::size_t size = op == test::kStoreOp ? test::Get32(bytes, at + test::kDeleteSize) : 0;
    records.push_back({at, at + head, at + head + size});
  }
  return records;
}

class Tail {
 public:
  Tail(const Journal& journal, const Bytes& found, std::size_t wholeEnd)
      : good(journal.bytes),
        bad(found),
        start(wholeEnd),
        end(journal.ends.back()),
        transactions(std::find(journal.ends.begin(), journal.ends.end(), start) -
                     journal.ends.begin()),
        records(RecordsFrom(good, start, end)) {}

  bool MayBeTorn() const {
    if (bad.size() < end || transactions < 33 || records.size() > 10 || end - start > 65536)
      return false;  // T1 to T3
    bool isFollowed = true, isAnyLost = false;
    for (const Record& record : records) {
      const bool isEnd = &record == &records.back(), isStart = &record == &records.front();
      const bool headIsLost = HasLost(record.begin, record.data);
      const bool dataIsLost = HasLost(record.data, record.end);
      isFollowed = isFollowed && (isStart || !headIsLost);
      for (std::size_t at = record.begin; at < record.end; ++at) {
        // Ids, hashes and the digest itself cannot be compared once something is lost.
        const std::size_t in = at - record.begin;
        const bool isSize = isStart ? in >= 20 && in < 24 : in >= test::kDeleteSize;
        const bool isKey = in >= 8 && at < record.data && !isSize;
        const bool isUnknown =
            (!isFollowed && !isEnd) || (dataIsLost && at >= record.data) || isKey;
        isAnyLost = isAnyLost || (bad[at] != good[at] && (IsLost(at) || InBlock(at)));
        if (bad[at] != good[at] && !IsLost(at) && !isUnknown && !(InBlock(at) && !HasBlock(at)))
          return false;
      }
    }
    return isAnyLost;
  }

 private:
  std::size_t PartBegin(std::size_t at) const { return std::max(start, at - at % kSector); }
  std::size_t PartEnd(std::size_t at) const { return std::min(end, at - at % kSector + kSector); }
  bool InBlock(std::size_t at) const { return at >= start + 16 && at < start + test::kStartSize; }
  // Whether the sector of this byte has a part of the finished block.
  bool HasBlock(std::size_t at) const {
    const std::size_t from = std::max(PartBegin(at), start + 16);
    const std::size_t to = std::min(PartEnd(at), start + test::kStartSize);
    return from < to && !IsZero(bad, from, to);
  }
  bool IsLost(std::size_t at) const {
    if (HasBlock(at)) return false;
    if (IsZero(bad, PartBegin(at), PartEnd(at))) return true;
    return std::any_of(records.begin(), records.end(), [&](const Record& record) {
      return record.begin > PartBegin(at) && record.begin <= at &&
             IsZero(bad, record.begin, PartEnd(at));
    });
  }
  bool HasLost(std::size_t from, std::size_t to) const {
    for (std::size_t at = from; at < to; ++at)
      if (IsLost(at)) return true;
    return false;
  }

  const Bytes& good;
  const Bytes& bad;
  const std::size_t start, end;       // of what is not whole
  const std::ptrdiff_t transactions;  // before it
  const std::vector<Record> records;
};

Bytes Change(const Journal& journal, Random& random) {
  Bytes bytes = journal.bytes;
  const std::size_t end = journal.ends.back();
  const std::size_t last = journal.ends[journal.ends.size() - 2 - random.Below(2)];
  const auto place = [&](std::size_t from) {
    return from + random.Below(static_cast<unsigned>(end - from));
  };
  const std::size_t at = place(random.Below(4) == 0 ? end / 4 : last);
  const std::size_t sector = at - at % kSector;
  const auto flip = [&](std::size_t in) {
    bytes[in] = static_cast<char>(bytes[in] ^ (1 << random.Below(8)));
  };
  switch (random.Below(6)) {
    case 0:
      bytes.resize(random.Below(2) == 0 ? at : sector);
      break;
    case 1:
      std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(at), bytes.end(), '\0');
      break;
    case 2:
      flip(at);
      break;
    default:  // sectors, and now and then from anywhere on
      for (unsigned n = 1 + random.Below(3); n > 0; --n) {
        const std::size_t from = place(last);
        const std::size_t begin = random.Below(8) == 0 ? from : from - from % kSector;
        const std::size_t to = std::min(from - from % kSector + kSector, bytes.size());
        std::fill(&bytes[std::max(begin, last)], &bytes[0] + to, '\0');
      }
      if (random.Below(4) == 0) flip(at);
  }
  return bytes;
}

}  // namespace

unsigned TryLostTails(std::uint64_t seed, unsigned tails) {
  unsigned torn = 0;
  Random random(seed);
  Journal journal;
  for (unsigned n = 0; n < tails; ++n) {
    if (n % 200 == 0) journal = MakeJournal(random);
    const Bytes bytes = Change(journal, random);
    test::FreshMachine();
    test::SetFile(kJournalPath, bytes);
    const test::OpenedStore store(1, test::OpenedStore::Policy::Keep);
    const BCStatistics statistics = test::StatisticsOf(store.index);
    const bool isDamaged = statistics.damaged != 0;
    const bool isSame =
        bytes.compare(0, journal.ends.back(), journal.bytes, 0, journal.ends.back()) == 0;
    if (isDamaged ? !isSame : statistics.journalBytes == journal.ends.back()) continue;
    const Tail tail(journal, bytes, statistics.journalBytes);
    if (!isDamaged) ++torn;
    if (!isDamaged && tail.MayBeTorn()) continue;
    throw Violation{"tail " + std::to_string(n) +
                    (isDamaged ? ": a whole journal is called damaged"
                               : ": what was lost passes for a power cut")};
  }
  return torn;
}

}  // namespace explore
