#include <algorithm>
#include <string>
#include <vector>

#include "tests/sim/Run.h"
#include "tests/support/JournalBytes.h"
#include "tests/support/OpenedStore.h"

namespace explore {

namespace {

using sim::Bytes;
constexpr std::size_t kSector = 512;
const std::string kJournalPath = "/s/0.jrn";

struct Journal {
  Bytes bytes;                    // with space that was blanked, as a killed process leaves it
  std::size_t before = 0;         // whole transactions
  std::size_t last = 0, end = 0;  // the transaction behind them
  std::vector<std::size_t> ends;  // of its records, from the start record to the last change
  bool beginsWithStore = false;
};

Journal MakeJournal(Random& random) {
  Journal journal;
  journal.before = 30 + random.Below(8);
  test::JournalBytes made;
  std::string blob;
  for (std::size_t n = 0; n <= journal.before; ++n) {
    const auto id = static_cast<std::int64_t>(n + 1);
    journal.last = made.Bytes().size();
    journal.ends = {journal.last + test::kStartSize};
    std::vector<std::string> records;
    for (unsigned left = 1 + random.Below(random.Below(4) == 0 ? 12 : 3); left > 0; --left) {
      const std::string former = blob;
      blob.clear();
      for (unsigned size = random.Below(2) * 1200 + random.Below(120); blob.size() < size;)
        blob.push_back(static_cast<char>(random.Next()));
      records.push_back(left == 2 ? test::DeleteRecord(id, former) : test::StoreRecord(id, blob));
      journal.ends.push_back(journal.ends.back() + records.back().size());
    }
    journal.beginsWithStore = records[0].size() > test::kStoreSize;
    made.Transaction(id, records);
  }
  journal.end = journal.ends.back() + test::kOpSize;
  journal.bytes = made.Bytes() + Bytes(4096, '\0');
  return journal;
}

struct Tail {
  Bytes bytes;
  bool isDamage;
};

// Takes from the last transaction what a power cut can leave out, and now and then something else.
Tail LoseSome(const Journal& journal, Random& random) {
  const auto& [good, before, last, end, ends, beginsWithStore] = journal;
  Bytes bytes = good;
  const auto place = [&](std::size_t from, std::size_t to) {
    return from + random.Below(static_cast<unsigned>(to - from));
  };
  const auto zero = [&](std::size_t from, std::size_t to) {
    bytes.replace(from, to - from, to - from, '\0');
  };
  // T4
  for (unsigned n = random.Below(4); n > 0; --n) {
    const std::size_t at = place(last, end), sector = at - at % kSector;
    const auto record = std::ranges::lower_bound(ends, at);
    const bool isWhole = sector < ends[0] || record == ends.end() || random.Below(2) == 0;
    const std::size_t from = isWhole ? std::max(sector, last) : *record;
    if (from < sector + kSector) zero(from, sector + kSector);
  }
  // T2 and T3
  const bool isDamage = bytes != good && (before < 33 || ends.size() + 1 > 10);

  const std::size_t places[] = {last, last + 20, end - test::kOpSize};
  std::size_t at = place(last + 1, end);
  switch (random.Below(8)) {
    case 0:  // T1
      bytes.resize(at);
      return {bytes, true};
    case 1:  // T3: the transaction before has lost its last bytes
      zero(last - 40, random.Below(2) == 0 ? last : end);
      return {bytes, true};
    case 2:  // T5: the op of the start or of the end, or the length
      at = places[random.Below(3)] + random.Below(4);
      bytes[at] = static_cast<char>(bytes[at] ^ 0x40);
      return {bytes, true};
    case 3:  // T4, T5: zeros from inside a blob on, or another size or blob
    case 4:
      at = place(ends[0] + test::kStoreSize - 1, ends[1]);
      if (!beginsWithStore || bytes.compare(0, ends[1], good, 0, ends[1]) != 0) break;
      if (bytes == good && at % kSector != 0 && bytes[at - 1] != 0 && bytes[at] != 0) {
        zero(at, at - at % kSector + kSector);
      } else {
        bytes[at] = static_cast<char>(bytes[at] ^ 0x40);
      }
      return {bytes, true};
    case 5:  // T4: zeros from the end of the start record on, beside its finished block
      if (bytes != good || ends[0] % kSector == 0) break;
      zero(ends[0], ends[0] - ends[0] % kSector + kSector);
      return {bytes, true};
    default:
      break;
  }
  return {bytes, isDamage};
}

}  // namespace

unsigned TryLostTails(std::uint64_t seed, unsigned tails) {
  unsigned torn = 0;
  Random random(seed);
  Journal journal;
  for (unsigned n = 0; n < tails; ++n) {
    if (n % 50 == 0) journal = MakeJournal(random);
    const auto [bytes, isDamage] = LoseSome(journal, random);
    test::FreshMachine();
    test::SetFile(kJournalPath, bytes);
    const test::OpenedStore store(1, test::OpenedStore::Policy::Keep);
    const BCStatistics statistics = test::StatisticsOf(store.index);
    const bool isWhole = statistics.damaged == 0 && statistics.journalBytes == journal.end;
    // What no digest covers may be lost.
    if (isWhole ? bytes.size() >= journal.end : (statistics.damaged != 0) == isDamage) {
      if (!isWhole && !isDamage) ++torn;
      continue;
    }
    throw Violation{"tail " + std::to_string(n) +
                    (isDamage ? ": what was lost passes for a power cut"
                              : ": what a power cut leaves is called damaged")};
  }
  return torn;
}

}  // namespace explore
