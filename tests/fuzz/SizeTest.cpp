// Megabytes of small records, sound and damaged: StoreLife's bounds for
// memory and platform calls where no constant hides what grows with the file,
// and files that would take hours if any byte were looked at twice.
#include <gtest/gtest.h>

#include <cstdio>

#include "tests/fuzz/StoreLife.h"
#include "tests/support/JournalBytes.h"

namespace fuzz {
namespace {

using test::JournalBytes;

constexpr std::uint32_t kRecords = 20000;

std::vector<std::string> Records(std::string (*make)(std::int64_t, std::string_view)) {
  std::vector<std::string> records;
  for (std::uint32_t i = 0; i < kRecords; ++i) records.push_back(make(1, std::to_string(i)));
  return records;
}

std::string Joined(const std::vector<std::string>& records) {
  std::string all;
  for (const std::string& record : records) all += record;
  return all;
}

TEST(FileSize, CostsMemoryAndWorkInProportion) {
  const std::vector<std::string> stores = Records(test::StoreRecord);
  const std::vector<std::string> deletes = Records(test::DeleteRecord);
  JournalBytes transactions;
  for (std::uint32_t i = 0; i < kRecords; ++i) transactions.Transaction(i, {deletes[i]});
  // Every start record claims, and digests, all that follows it.
  std::string nested;
  for (int i = 0; i < 1000; ++i) nested = test::StartRecord(1, nested);

  const struct {
    const char* name;
    std::string file;
  } rows[] = {
      {"stores", JournalBytes().Transaction(1, stores).Bytes()},
      {"a transaction each", transactions.Bytes()},
      {"count ends early", JournalBytes().Transaction(1, stores).Count(kRecords / 2).Bytes()},
      {"one within another",
       JournalBytes().Transaction(1, deletes).Raw(nested).Count(0x7FFFFFFF).Bytes()},
      {"no end",
       JournalBytes().Raw(test::StartRecord(1, Joined(stores))).Count(0x7FFFFFFF).Bytes()},
  };
  LifeOptions options;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::printf("%s: %zu bytes\n", row.name, row.file.size());  // a finding ends the program
    options.keep = !options.keep;
    LiveThrough({{JournalBytes(1, 7).Bytes(), row.file}}, options);
    LiveThrough({{row.file, JournalBytes().Bytes()}}, options);
  }
}

}  // namespace
}  // namespace fuzz
