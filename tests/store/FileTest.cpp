// The file layer by itself: the words of its errors, retries, checksums.
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

TEST(File, SaysWhatWasWantedAndWhatWasGot) {
  FreshMachine();
  SetFile("/a/f", "0123456789");
  File file;
  char buffer[20] = {};
  const auto write = [&](Fault fault) {
    sim::Files().FailCallOf(Call::WriteFile, 1, fault);
    file.write(buffer, 8);
  };
  const std::pair<std::function<void()>, const char*> rows[] = {
      {[&] { file.seek(0); }, "File::seek failed, not opened"},
      {[&] { file.tell(); }, "File::tell failed, not opened"},
      {[&] { file.read(buffer, 1); }, "File::read failed, not opened"},
      {[&] { file.write(buffer, 1); }, "File::write failed, not opened"},
      {[&] { file.open("/a/f", GENERIC_READ | GENERIC_WRITE, OPEN_EXISTING, 0); },
       "nothing thrown"},
      {[&] { file.seek(0x80000000U); }, "File::Seek SetFilePointer failed, GetLastError=131"},
      {[&] { file.read(buffer, 20); },
       "File::Read didn't read the entire buffer 20 read 10 GetLastError 0"},
      {[&] { write(Fault::Partial); },
       "File::Write didn't write the entire buffer 8 written 4 GetLastError 1117"},
      {[&] { write(Fault::DoneButFailed); }, "File::Write failed GetLastError code = 1117"},
      {[&] { file.erase(); }, "nothing thrown"},
      {[&] { file.erase(); }, "File::Close failed GetLastError code = 2"},
      {[&] { file.open("/a/g", GENERIC_READ, OPEN_ALWAYS, 0); }, "nothing thrown"},
      {[&] { sim::Files().FailCallOf(Call::CloseHandle, 1, Fault::Error), file.close(); },
       "File::Close failed GetLastError code = 1117"}};
  EXPECT_FALSE(file.flush() || file.size() != 0xFFFFFFFFU);
  for (const auto& [action, text] : rows) EXPECT_EQ(WhatOf(action), text);
  EXPECT_EQ(Diagnostics().fatalErrors, std::vector<std::uint32_t>(6, 0x49380D)) << "not opened";
  EXPECT_EQ(Diagnostics().records.at(0).at(0), 0x0F000131U);
  EXPECT_EQ(Diagnostics().records.at(1).at(0), 0x0F000132U);
  EXPECT_TRUE(Diagnostics().HasWarning(
      "FileSystem::Remove Error deleting file = /a/f GetLastError code = 2 "));
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
  EXPECT_EQ(WhatOf(move), "FileSystem::MoveFile error /a/f -> /a/g GetLastError code= 2");
  EXPECT_EQ(WhatOf(open), "FileSystem::CreateFile error /a/f GetLastError code= 2");
  EXPECT_EQ(files.sleptMs, 20U);
  files.FailCallOf(Call::MoveFile, 1, Fault::Busy, true);
  EXPECT_EQ(WhatOf(move), "FileSystem::MoveFile error /a/f -> /a/g GetLastError code= 32");
  files.FailCallOf(Call::CreateFile, 1, Fault::Busy, true);
  EXPECT_EQ(WhatOf(open), "FileSystem::CreateFile error /a/f GetLastError code= 32");
  EXPECT_EQ(files.sleptMs, 1020U);
  EXPECT_TRUE(Diagnostics().HasWarning("FileSystem::MoveFile sharing violation file retrying 24"));
  EXPECT_TRUE(
      Diagnostics().HasError("FileSystem::CreateFile sharing violation file /a/f retry 24"));
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
