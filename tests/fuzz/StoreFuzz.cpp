// Builds a pack or a journal from the input's bytes, alone or in one of two
// slots: whole transactions, lone records, changed fields and bytes. Sizes,
// hashes, lengths, digests and the header are then repaired more often than
// not, so that hostile but well-signed files are reached. Every input is a
// valid recipe; no corpus is needed.
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

using test::Digest;
using test::Get32;
using test::kOpSize;
using test::Put32;

constexpr std::uint32_t kEdges[] = {0,          1,          16,         24,         32,
                                    36,         40,         4096,       0x7FFFFFFF, 0x80000000,
                                    0x80000001, 0xFFFFFFDC, 0xFFFFFFF0, 0xFFFFFFFE, 0xFFFFFFFF};
enum Right : unsigned { Sizes = 1, Hashes = 2, Lengths = 4, Digests = 8, Header = 16 };

class FileMaker {
 public:
  FileMaker(const std::uint8_t* data, std::size_t size) : in(data), left(size) {}
  unsigned Next(unsigned below) { return left == 0 ? 0 : (--left, *in++ % below); }
  bool AtEnd() const { return left == 0; }

  std::string Make() {
    header = test::JournalBytes(Next(2),
                                static_cast<std::int32_t>(kSequences[Next(std::size(kSequences))]))
                 .Bytes();
    for (unsigned n = 1 + Next(3); n > 0; --n) AddTransaction();
    if (Next(2) != 0) Repair(31);
    for (unsigned n = Next(4); n > 0; --n) Change();
    Repair(kRepairs[Next(std::size(kRepairs))]);
    if (Next(2) != 0) {  // one more fault, which may lie under correct digests
      Change();
      Repair(kRepairs[Next(std::size(kRepairs))]);
    }
    return Bytes();
  }

 private:
  static constexpr std::uint32_t kSequences[] = {0,          1,          7,         0x7FFFFFFF,
                                                 0xFFFFFFFF, 0xFFFFFFFE, 0xFFFFFFFD};
  static constexpr unsigned kRepairs[] = {
      0, Header, Digests | Header, Digests, Lengths | Digests | Header, 31 - Sizes, 31, 31};

  std::string Bytes() const {
    std::string bytes = header;
    for (const std::string& record : records) bytes += record;
    return bytes + tail;
  }
  std::uint32_t OpOf(std::size_t i) const {
    return records[i].size() < kOpSize ? test::kEndOp + 1 : Get32(records[i], 0);
  }
  auto At(std::size_t i) { return records.begin() + static_cast<std::ptrdiff_t>(i); }

  std::string Record() {
    const std::string data(Next(5) == 0 ? 4094 + Next(4) : Next(48),
                           static_cast<char>('a' + Next(8)));
    const std::int64_t id = Next(4);
    return Next(3) == 0 ? test::DeleteRecord(id, data) : test::StoreRecord(id, data);
  }
  void AddTransaction() {
    records.push_back(test::StartRecord(2, {}));
    for (unsigned n = Next(4); n > 0; --n) records.push_back(Record());
    records.push_back(test::EndRecord(2));
  }

  void Change() {
    static constexpr std::size_t kFields[] = {0, 0, 4, 8, 16, 20, 20, 32, 32};
    const unsigned what = Next(10);
    if (what == 0) return ChangeNumber(header, 4 * Next(6));
    if (what == 1)
      return tail.assign(tail.empty() ? Next(64) : 0, static_cast<char>(Next(2))), void();
    if (what == 2) return AddTransaction();
    if (records.empty()) return;
    const std::size_t i = Next(static_cast<unsigned>(records.size())),
                      k = Next(static_cast<unsigned>(records.size()));
    std::string& record = records[i];
    switch (what) {
      case 3:
        records.insert(At(i), Next(2) != 0   ? Record()
                              : Next(2) != 0 ? test::StartRecord(1, {})
                                             : test::EndRecord(1));
        return;
      case 4:
        if (!record.empty())
          record[Next(static_cast<unsigned>(record.size()))] ^= static_cast<char>(1 << Next(8));
        return;
      case 5:
        records.erase(At(i));
        return;
      case 6:
        std::swap(record, records[k]);
        return;
      case 7:
        record.resize(Next(static_cast<unsigned>(record.size()) + 1));
        return;
      case 8:
        if (record.size() >= test::kDeleteSize && records[k].size() >= test::kDeleteSize)
          record.replace(kOpSize, 16, records[k].substr(kOpSize, 16));
        return;
      default:
        return ChangeNumber(record, kFields[Next(std::size(kFields))]);
    }
  }

  void ChangeNumber(std::string& bytes, std::size_t at) {
    if (bytes.size() < at + 4) return;
    const std::uint32_t old = Get32(bytes, at), edge = kEdges[Next(std::size(kEdges))];
    const std::uint32_t values[] = {edge, old + 1, old - 1, old + edge,
                                    static_cast<std::uint32_t>(Bytes().size()) - Next(64)};
    Put32(bytes, at, values[Next(std::size(values))]);
  }

  void Repair(unsigned what) {
    for (std::size_t i = 0; i < records.size(); ++i) {
      if (OpOf(i) != test::kStoreOp || records[i].size() < test::kStoreSize) continue;
      if ((what & Sizes) != 0)
        Put32(records[i], test::kDeleteSize,
              static_cast<std::uint32_t>(records[i].size() - test::kStoreSize));
      if ((what & Hashes) != 0)
        records[i].replace(kOpSize, 16,
                           Digest(std::string_view(records[i]).substr(test::kStoreSize)));
    }
    for (std::size_t i = 0; i < records.size(); ++i)
      if (OpOf(i) == test::kStartOp && records[i].size() >= test::kStartSize) RepairBlock(i, what);
    if ((what & Header) == 0) return;
    Put32(header, 4, static_cast<std::uint32_t>(records.size()));
    Put32(header, 20, static_cast<std::uint32_t>(Bytes().size() - tail.size()));
  }
  void RepairBlock(std::size_t i, unsigned what) {
    std::string body;
    for (std::size_t k = i + 1;
         k < records.size() && ((what & Lengths) == 0 || OpOf(k) != test::kEndOp); ++k)
      body += records[k];
    if ((what & Lengths) != 0)
      Put32(records[i], kOpSize + 4, static_cast<std::uint32_t>(body.size()));
    body.resize(std::min<std::size_t>(body.size(), Get32(records[i], kOpSize + 4)));
    if ((what & Digests) != 0) records[i].replace(kOpSize + 8, 16, Digest(body));
  }

  const std::uint8_t* in;
  std::size_t left;
  std::string header, tail;
  std::vector<std::string> records;
};

std::string Sound(std::uint32_t mode, std::int32_t sequence, std::string_view blob) {
  return test::JournalBytes(mode, sequence)
      .Transaction(0, {test::StoreRecord(1, "a"), test::StoreRecord(2, blob)})
      .Bytes();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FileMaker maker(data, size);
  const unsigned options = maker.Next(16);
  const bool isPack = maker.Next(2) != 0, isAlone = maker.Next(2) != 0,
             isFirst = maker.Next(2) != 0;
  static constexpr std::int32_t kOthers[] = {0, 1, -1, -3};
  const std::int32_t other = kOthers[maker.Next(4)];
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

// Files of many records, sound and damaged: bounds where no constant hides what
// grows with the file, and hours if any byte were looked at twice.
void LiveThroughLargeFiles() {
  constexpr std::uint32_t kRecords = 20000;
  std::vector<std::string> stores, deletes;
  test::JournalBytes transactions;
  std::string all, nested;
  for (std::uint32_t i = 0; i < kRecords; ++i) {
    stores.push_back(test::StoreRecord(1, std::to_string(i)));
    deletes.push_back(test::DeleteRecord(1, std::to_string(i)));
    transactions.Transaction(i, {deletes.back()});
    all += stores.back();
    // Every start record claims, and digests, all that follows it.
    if (i < 1000) nested = test::StartRecord(1, nested);
  }
  const auto journal = [] { return test::JournalBytes(); };
  const std::string rows[] = {
      journal().Transaction(1, stores).Bytes(),
      transactions.Bytes(),
      journal().Transaction(1, stores).Count(kRecords / 2).Bytes(),
      journal().Transaction(1, deletes).Raw(nested).Count(0x7FFFFFFF).Bytes(),
      journal().Raw(test::StartRecord(1, all)).Count(0x7FFFFFFF).Bytes(),
  };
  for (const std::string& file : rows) {
    std::printf("a file of %zu bytes\n", file.size());  // a finding ends the program
    for (const unsigned options : {0U, unsigned{fuzz::kKeep}}) {
      fuzz::LiveThrough({{test::JournalBytes(1, 7).Bytes(), file}}, options);
      fuzz::LiveThrough({{file, journal().Bytes()}}, options);
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
