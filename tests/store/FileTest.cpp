// The file layer by itself: the words of its errors, retries, checksums.
#include <gtest/gtest.h>

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

template <class Action>
std::string WhatOf(Action action) {
  try {
    action();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "nothing thrown";
}

TEST(File, SaysWhatWasWantedAndWhatWasGot) {
  FreshMachine();
  SetFile("/a/f", "0123456789");
  File file;
  char buffer[20];
  EXPECT_EQ(WhatOf([&] { file.seek(0); }), "File::seek failed, not opened");
  EXPECT_EQ(WhatOf([&] { file.tell(); }), "File::tell failed, not opened");
  EXPECT_EQ(WhatOf([&] { file.read(buffer, 1); }), "File::read failed, not opened");
  EXPECT_EQ(WhatOf([&] { file.write(buffer, 1); }), "File::write failed, not opened");
  EXPECT_FALSE(file.flush());
  EXPECT_EQ(file.size(), 0xFFFFFFFFU);
  EXPECT_EQ(Diagnostics().fatalErrors, std::vector<std::uint32_t>(6, 0x49380D));

  file.open("/a/f", GENERIC_READ | GENERIC_WRITE, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL);
  file.seek(4);
  EXPECT_EQ(WhatOf([&] { file.read(buffer, 20); }),
            "File::Read didn't read the entire buffer 20 read 6 GetLastError 0");
  EXPECT_EQ(WhatOf([&] { file.seek(0x80000000U); }),
            "File::Seek SetFilePointer failed, GetLastError=131");
  sim::Files().FailCallOf(Call::WriteFile, 1, Fault::Partial);
  EXPECT_EQ(WhatOf([&] { file.write(buffer, 8); }),
            "File::Write didn't write the entire buffer 8 written 4 GetLastError 1117");
  EXPECT_EQ(Diagnostics().records.back().id, 0x0F000131U);
  sim::Files().FailCallOf(Call::WriteFile, 1, Fault::DoneButFailed);
  EXPECT_EQ(WhatOf([&] { file.write(buffer, 8); }), "File::Write failed GetLastError code = 1117");
  EXPECT_EQ(Diagnostics().records.back().id, 0x0F000132U);
  file.erase();
  EXPECT_EQ(WhatOf([&] { file.erase(); }), "File::Close failed GetLastError code = 2");
  EXPECT_TRUE(Diagnostics().HasWarning(
      "FileSystem::Remove Error deleting file = /a/f GetLastError code = 2 "));
  file.open("/a/g", GENERIC_READ, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL);
  sim::Files().FailCallOf(Call::CloseHandle, 1, Fault::Error);
  EXPECT_EQ(WhatOf([&] { file.close(); }), "File::Close failed GetLastError code = 1117");
}

TEST(FileSystem, WaitsForASharingViolationAndForNothingElse) {
  FreshMachine();
  SetFile("/a/f", "x");
  sim::SimFiles& files = sim::Files();
  files.FailCallOf(Call::CreateFile, 1, Fault::Busy);
  CloseHandle(FileSystem::CreateFileW("/a/f", GENERIC_READ, OPEN_EXISTING, 0));
  EXPECT_EQ(files.sleptMs, 20U) << "free at the second attempt";
  EXPECT_TRUE(Diagnostics().HasError("FileSystem::CreateFile sharing violation file /a/f retry 0"));
  const auto move = [] { FileSystem::MoveFileW(std::string("/a/f"), std::string("/a/g")); };
  files.FailCallOf(Call::MoveFile, 1, Fault::Busy, true);
  EXPECT_EQ(WhatOf(move), "FileSystem::MoveFile error /a/f -> /a/g GetLastError code= 32");
  EXPECT_TRUE(Diagnostics().HasWarning("FileSystem::MoveFile sharing violation file retrying 24"));
  files.Heal();
  EXPECT_EQ(WhatOf(move), "nothing thrown");
  EXPECT_EQ(WhatOf(move), "FileSystem::MoveFile error /a/f -> /a/g GetLastError code= 2");
  EXPECT_EQ(files.sleptMs, 520U);
}

TEST(FileSystem, ConvertsPathsByteByByteAndBack) {
  const std::string narrow = "caf\xC3\xA9";
  const std::u16string wide = {0x63, 0x61, 0x66, 0xFFC3, 0xFFA9};
  EXPECT_EQ(FileSystem::ConvertString(narrow), wide);
  EXPECT_EQ(FileSystem::ConvertString(wide), narrow);
  EXPECT_EQ(FileSystem::ConvertString(std::u16string{0x00E9, 0x0141}), "\xE9\x41");
}

TEST(Checksum, CoversTheRestOfAFileInPiecesOfAnySize) {
  FreshMachine();
  const std::string content(1000, 'c');
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
  EXPECT_TRUE(FileSystem::ValidateFile("/a/f", TextOf(HashOf(content))));
  EXPECT_FALSE(FileSystem::ValidateFile("/a/f", TextOf(HashOf("other"))));
}

TEST(Checksum, AFileCarriesItsOwnDigest) {
  FreshMachine();
  const std::pair<std::string, bool> rows[] = {
      {Hex("d41d8cd98f00b204e9800998ecf8427e"), true},
      {Hex("900150983cd24fb0d6963f7d28e17f72") + "abc", true},
      {Hex("900150983cd24fb0d6963f7d28e17f72") + "abd", false}};
  std::string path = "/a/f";
  for (const auto& [bytes, isValid] : rows) {
    SetFile(path, bytes);
    EXPECT_EQ(ChkFile::Validate(path), isValid);
  }
  SetFile(path, std::string(15, 'x'));
  EXPECT_EQ(WhatOf([&] { ChkFile::Validate(path); }),
            "File::Read didn't read the entire buffer 16 read 15 GetLastError 0");
  EXPECT_EQ(sim::Files().openHandles(), 0U);
}

TEST(Hash, IsOrderedBytewiseAndPrintedWithoutLeadingZeros) {
  unsigned char low[16] = {0x7f}, high[16] = {0x80}, last[16] = {0x80}, mixed[16] = {0x0a, 0xff};
  last[15] = 1;
  Hash a, b, c, d;
  a.setHash(low);
  b.setHash(high);
  c.setHash(last);
  EXPECT_TRUE(a < b && b < c && !(c < b) && !(b < b));
  d.setHash(mixed);
  EXPECT_EQ(d.toString(), "aff00000000000000");
}

}  // namespace
}  // namespace test
