// The file layer by itself: what no store shows of its retries and checksums.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "fs/ChkFile.h"
#include "fs/File.h"
#include "fs/FileSystem.h"
#include "pack/Hash.h"
#include "tests/support/JournalBytes.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using sim::Call;
using sim::Diagnostics;
using sim::Fault;

std::string WhatOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "nothing thrown";
}

TEST(FileSystem, WaitsForASharingViolationAndForNothingElse) {
  FreshMachine();
  SetFile("/a/f", "x");
  sim::SimFiles& files = sim::Files();
  const auto open = [] { FileSystem::CreateFileW("/a/f", GENERIC_READ, OPEN_EXISTING, 0); };
  const auto move = [] { FileSystem::MoveFileW(std::string("/a/f"), std::string("/a/g")); };
  files.FailCallOf(Call::MoveFile, 1, Fault::Busy);
  EXPECT_EQ(WhatOf(move), "nothing thrown");
  EXPECT_EQ(files.sleptMs, 20U) << "free at the second attempt";
  EXPECT_EQ(WhatOf(open), "FileSystem::CreateFile error /a/f GetLastError code= 2");
  EXPECT_EQ(files.sleptMs, 20U);
  files.FailCallOf(Call::MoveFile, 1, Fault::Busy, true);
  EXPECT_EQ(WhatOf(move), "FileSystem::MoveFile error /a/f -> /a/g GetLastError code= 32");
  EXPECT_EQ(files.sleptMs, 520U);
  EXPECT_TRUE(Diagnostics().HasWarning("FileSystem::MoveFile sharing violation file retrying 24"));
}

TEST(Checksum, CoversTheRestOfAFileInPiecesOfAnySize) {
  FreshMachine();
  const std::string content(1000, 'c'), sum = TextOf(HashOf(content));
  SetFile("/a/f", content);
  FileReader reader;
  reader.open("/a/f");
  const struct {
    unsigned from, limit;
    std::uint64_t reads;
  } rows[] = {{0, 100, 10}, {0, 1 << 20, 2}, {600, 0, 1}, {1000, 7, 0}};
  for (const auto& row : rows) {
    reader.seek(row.from);
    const std::uint64_t reads = sim::Files().calls(Call::ReadFile);
    Hash raw;
    FileSystem::GetFileChksum(reader, raw, row.limit);
    EXPECT_EQ(raw.toString(), TextOf(HashOf(content.substr(row.from))));
    EXPECT_EQ(sim::Files().calls(Call::ReadFile) - reads, row.reads);
  }
  reader.close();
  EXPECT_TRUE(FileSystem::ValidateFile("/a/f", sum) && !FileSystem::ValidateFile("/a/f", "0"));

  // A file that carries its own digest before its contents.
  std::string path = "/a/g";
  for (const char* last : {"c", "d", ""}) {
    SetFile(path, Hex("900150983cd24fb0d6963f7d28e17f72") + "ab" + last);
    EXPECT_EQ(ChkFile::Validate(path), *last == 'c');
  }
  SetFile(path, std::string(15, 'x'));
  EXPECT_EQ(WhatOf([&] { ChkFile::Validate(path); }),
            "File::Read didn't read the entire buffer 16 read 15 GetLastError 0");
  EXPECT_EQ(sim::Files().openHandles(), 0U);
}

}  // namespace
}  // namespace test
