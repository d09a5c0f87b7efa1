#include <algorithm>
#include <string>
#include <vector>

#include "tests/sim/PowerCut.h"
#include "tests/support/JournalBytes.h"
#include "tests/support/OpenedStore.h"

namespace explore {

namespace {

using sim::Bytes;
constexpr std::size_t kSector = 512;
const std::string kJournalPath = "/s/0.jrn";

struct Record {
  std::size_t begin, data, end;
};
struct Journal {
  Bytes bytes;
  std::vector<Record> records;
  std::vector<std::size_t> ends{test::kHeaderSize};  // of each transaction
};

// With space that was blanked, as a killed process leaves it.
Journal MakeJournal(Random& random) {
  Journal journal;
  test::JournalBytes made;
  const auto add = [&](std::size_t head, std::size_t size) {
    const std::size_t begin =
        journal.records.empty() ? test::kHeaderSize : journal.records.back().end;
    journal.records.push_back({begin, begin + head, begin + head + size});
  };
  std::string last = "0";
  for (unsigned id = 1, count = 20 + random.Below(50); id <= count; ++id) {
    std::vector<std::string> records;
    add(test::kStartSize, 0);
    for (unsigned n = 1 + random.Below(3); n > 0; --n) {
      std::string blob;
      for (unsigned size = random.Below(2) * 1200 + random.Below(120); blob.size() < size;)
        blob.push_back(static_cast<char>(random.Next()));
      records.push_back(n == 2 ? test::DeleteRecord(id, last) : test::StoreRecord(id, blob));
      add(n == 2 ? test::kDeleteSize : test::kStoreSize, n == 2 ? 0 : blob.size());
      last = blob;
    }
    add(test::kOpSize, 0);
    made.Transaction(id, records);
    journal.ends.push_back(journal.records.back().end);
  }
  journal.bytes = made.Bytes() + Bytes(4096, '\0');
  return journal;
}

bool IsZero(const Bytes& bytes, std::size_t from, std::size_t to) {
  return bytes.find_first_not_of('\0', from) >= std::min(to, bytes.size());
}

// Whether the transaction that begins at `start`, where what is whole of `bad` ends, may be torn.
bool MayBeTorn(const Journal& journal, const Bytes& bad, std::size_t start) {
  const Bytes& good = journal.bytes;
  const std::size_t end = journal.ends.back(), block = start + 16,
                    blockEnd = start + test::kStartSize;
  const auto first = std::ranges::lower_bound(journal.records, start, {}, &Record::begin);
  const std::vector<Record> records(first, journal.records.end());
  const auto whole = std::ranges::lower_bound(journal.ends, start) - journal.ends.begin();
  if (bad.size() < end || whole < 33 || records.size() > 10 || end - start > 65536)
    return false;        // T1 to T3
  Bytes lost(end, ' ');  // an x for each byte that may have been lost, by T4
  const auto lose = [&lost](std::size_t from, std::size_t to) {
    if (from < to) lost.replace(from, to - from, to - from, 'x');
  };
  for (std::size_t from = start, to = 0; from < end; from = to) {
    to = std::min(end, from - from % kSector + kSector);
    const std::size_t part = std::max(from, block), partEnd = std::min(to, blockEnd);
    if (part < partEnd && !IsZero(bad, part, partEnd)) continue;
    lose(part, partEnd);
    for (const Record& record : records)
      if (const std::size_t at = std::max(from, record.begin); IsZero(bad, at, to)) lose(at, to);
  }
  bool isFollowed = true, isAnyLost = false;
  for (const Record& record : records) {  // T5
    const bool isEnd = &record == &records.back(), isStart = &record == &records.front();
    isFollowed = isFollowed && (isStart || lost.find('x', record.begin) >= record.data);
    const bool dataIsLost = lost.find('x', record.data) < record.end;
    for (std::size_t at = record.begin; at < record.end; ++at) {
      if (bad[at] == good[at]) continue;
      // Ids, hashes and the digest itself cannot be compared once something is lost.
      const std::size_t in = at - record.begin;
      const bool isSize = isStart ? in >= 20 && in < 24 : in >= test::kDeleteSize;
      const bool isKey = in >= 8 && at < record.data && !isSize;
      if (lost[at] != 'x' && (isFollowed || isEnd) && !(dataIsLost && at >= record.data) && !isKey)
        return false;
      isAnyLost = isAnyLost || lost[at] == 'x' || (at >= block && at < blockEnd);
    }
  }
  return isAnyLost;
}

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
    if (!isDamaged) ++torn;
    if (!isDamaged && MayBeTorn(journal, bytes, statistics.journalBytes)) continue;
    throw Violation{"tail " + std::to_string(n) +
                    (isDamaged ? ": a whole journal is called damaged"
                               : ": what was lost passes for a power cut")};
  }
  return torn;
}

}  // namespace explore
