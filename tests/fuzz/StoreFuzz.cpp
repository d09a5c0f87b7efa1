// Builds a pack or a journal from the input's bytes, alone or in one of two slots: whole
// transactions, lone records, changed fields and bytes. Sizes, hashes, lengths, digests and the
// header are then repaired more often than not, so that hostile but well-signed files are reached.
// Every input is a valid recipe; no corpus is needed.
//
// Runs under libFuzzer, or by itself:
//   store_fuzz_replay EXECUTIONS [SEED]: large files, then pseudo-random inputs
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <random>

#include "tests/fuzz/FileModel.h"
#include "tests/support/JournalBytes.h"

namespace {

using namespace test;

constexpr std::uint32_t kEdges[] = {0,          1,          16,         24,         32,
                                    36,         40,         4096,       0x7FFFFFFF, 0x80000000,
                                    0x80000001, 0xFFFFFFDC, 0xFFFFFFF0, 0xFFFFFFFE, 0xFFFFFFFF};
constexpr std::int32_t kSequences[] = {0, 1, 7, 0x7FFFFFFF, -1, -2, -3};
enum Right : unsigned { Sizes = 1, Hashes = 2, Lengths = 4, Digests = 8, Header = 16, All = 31 };
constexpr unsigned kRepairs[] = {
    0, Header, Digests | Header, Digests, Lengths | Digests | Header, All - Sizes, All, All};

class FileMaker {
 public:
  FileMaker(const std::uint8_t* data, std::size_t size) : in(data), left(size) {}
  unsigned Next(std::size_t below) {
    return left == 0 ? 0 : (--left, static_cast<unsigned>(*in++ % below));
  }
  template <class Value, std::size_t count>
  Value Pick(const Value (&values)[count]) {
    return values[Next(count)];
  }

  std::string Make() {
    const unsigned mode = Next(2);
    header = JournalBytes(mode, Pick(kSequences)).Bytes();
    for (unsigned n = 1 + Next(3); n > 0; --n) AddTransaction();
    if (Next(2) != 0) Repair(All);
    for (unsigned n = Next(4); n > 0; --n) Change();
    Repair(Pick(kRepairs));
    if (Next(2) != 0) {  // one more fault, which may lie under correct digests
      Change();
      Repair(Pick(kRepairs));
    }
    return Bytes();
  }

 private:
  std::string Bytes() const {
    std::string bytes = header;
    for (const std::string& record : records) bytes += record;
    return bytes + tail;
  }
  static bool Is(const std::string& record, std::uint32_t op, std::size_t headSize) {
    return record.size() >= headSize && Get32(record, 0) == op;
  }

  std::string Record() {
    const std::string data(Next(5) == 0 ? 4094 + Next(4) : Next(48),
                           static_cast<char>('a' + Next(8)));
    const std::int64_t id = Next(4);
    return Next(3) == 0 ? DeleteRecord(id, data) : StoreRecord(id, data);
  }
  void AddTransaction() {
    records.push_back(StartRecord(2, {}));
    for (unsigned n = Next(4); n > 0; --n) records.push_back(Record());
    records.push_back(EndRecord(2));
  }

  void Change() {
    static constexpr std::size_t kFields[] = {0, 0, 4, 8, 16, 20, 20, 32, 32};
    const unsigned what = Next(10);
    if (what == 0) return ChangeNumber(header, 4 * Next(6));
    if (what == 1) tail.assign(tail.empty() ? Next(64) : 0, static_cast<char>(Next(2)));
    if (what == 2) AddTransaction();
    if (what <= 2 || records.empty()) return;
    const auto at = records.begin() + Next(records.size());
    const std::string& other = records[Next(records.size())];
    if (what == 3) {
      const std::string added[] = {Record(), StartRecord(1, {}), EndRecord(1)};
      records.insert(at, Pick(added));
    } else if (what == 4 && !at->empty()) {
      (*at)[Next(at->size())] ^= static_cast<char>(1 << Next(8));
    } else if (what == 5) {
      records.erase(at);
    } else if (what == 6) {
      *at = other;
    } else if (what == 7) {
      at->resize(Next(at->size() + 1));
    } else if (what == 8 && at->size() >= kDeleteSize && other.size() >= kDeleteSize) {
      at->replace(kOpSize, 16, other, kOpSize, 16);
    } else if (what == 9) {
      ChangeNumber(*at, Pick(kFields));
    }
  }

  void ChangeNumber(std::string& bytes, std::size_t at) {
    if (bytes.size() < at + 4) return;
    const std::size_t old = Get32(bytes, at), edge = Pick(kEdges);
    const std::size_t values[] = {edge, old + 1, old - 1, old + edge, Bytes().size() - Next(64)};
    Put32(bytes, at, Pick(values));
  }

  void Repair(unsigned what) {
    for (std::string& record : records) {
      if (!Is(record, kStoreOp, kStoreSize)) continue;
      if ((what & Sizes) != 0) Put32(record, kDeleteSize, record.size() - kStoreSize);
      if ((what & Hashes) != 0) record.replace(kOpSize, 16, Digest(record.substr(kStoreSize)));
    }
    for (std::size_t i = 0; i < records.size(); ++i)
      if (Is(records[i], kStartOp, kStartSize)) RepairBlock(i, what);
    if ((what & Header) == 0) return;
    Put32(header, 4, records.size());
    Put32(header, 20, Bytes().size() - tail.size());
  }
  void RepairBlock(std::size_t i, unsigned what) {
    const bool ends = (what & Lengths) != 0;
    std::string body;
    for (std::size_t k = i + 1; k < records.size() && !(ends && Is(records[k], kEndOp, kOpSize));
         ++k)
      body += records[k];
    if (ends) Put32(records[i], 20, body.size());
    body.resize(std::min<std::size_t>(body.size(), Get32(records[i], 20)));
    if ((what & Digests) != 0) records[i].replace(24, 16, Digest(body));
  }

  const std::uint8_t* in;
  std::size_t left;
  std::string header, tail;
  std::vector<std::string> records;
};

std::string Sound(std::uint32_t mode, std::int32_t sequence, std::string_view blob) {
  return JournalBytes(mode, sequence)
      .Transaction(0, {StoreRecord(1, "a"), StoreRecord(2, blob)})
      .Bytes();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FileMaker maker(data, size);
  const unsigned options = maker.Next(8);
  const bool isPack = maker.Next(2) != 0, isAlone = maker.Next(2) != 0,
             isFirst = maker.Next(2) != 0;
  static constexpr std::int32_t kOthers[] = {0, 1, -1, -3};
  const std::int32_t other = maker.Pick(kOthers);
  const std::string file = maker.Make();
  std::vector<fuzz::Slot> slots = {
      {isPack ? file : Sound(1, 7, "bb"), isPack ? Sound(0, 0, "first") : file}};
  if (isPack && !isAlone)
    slots.insert(isFirst ? slots.end() : slots.begin(),
                 {Sound(1, other, "bb"), Sound(0, 0, "second")});
  fuzz::LiveThrough(slots, options);
  return 0;
}

#ifndef BLOBRING_FUZZ
namespace {

// Files of many records, sound and damaged: bounds where no constant hides what grows with the
// file, and hours if any byte were looked at twice.
void LiveThroughLargeFiles() {
  std::vector<std::string> stores, deletes;
  JournalBytes transactions;
  std::string all, nested;
  for (int i = 0; i < 20000; ++i) {
    all += stores.emplace_back(StoreRecord(1, std::to_string(i)));
    transactions.Transaction(i, {deletes.emplace_back(DeleteRecord(1, std::to_string(i)))});
    // Every start record claims, and digests, all that follows it.
    if (i < 1000) nested = StartRecord(1, nested);
  }
  const std::string
      empty = JournalBytes().Bytes(),
      rows[] = {
          JournalBytes().Transaction(1, stores).Bytes(),
          transactions.Bytes(),
          JournalBytes().Transaction(1, stores).Count(10000).Bytes(),
          JournalBytes().Transaction(1, deletes).Raw(nested).Count(0x7FFFFFFF).Bytes(),
          JournalBytes().Raw(StartRecord(1, all)).Count(0x7FFFFFFF).Bytes(),
      };
  for (const std::string& file : rows) {
    std::printf("a file of %zu bytes\n", file.size());  // a finding ends the program
    for (const unsigned options : {0U, unsigned{fuzz::kKeep}}) {
      fuzz::LiveThrough({{JournalBytes(1, 7).Bytes(), file}}, options);
      fuzz::LiveThrough({{file, empty}}, options);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  LiveThroughLargeFiles();
  std::mt19937 random(argc > 2 ? static_cast<unsigned>(std::atol(argv[2])) : 1);
  const long executions = argc > 1 ? std::atol(argv[1]) : 20000;
  for (long n = 0; n < executions; ++n) {
    std::vector<std::uint8_t> input(16 + random() % 100);
    for (std::uint8_t& byte : input) byte = static_cast<std::uint8_t>(random());
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
  std::printf("%ld executions, nothing found\n", executions);
}
#endif
