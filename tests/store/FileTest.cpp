// The file layer by itself: words of its errors, retries, trees, checksums.
#include <gtest/gtest.h>

#include <stdexcept>

#include "fs/ChkFile.h"
#include "fs/File.h"
#include "fs/FileSystem.h"
#include "md5/MD5.h"
#include "pack/BlobPair.h"
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

constexpr unsigned kReadWrite = GENERIC_READ | GENERIC_WRITE;

TEST(File, AClosedFileReportsAFatalMisuseAndThenItsError) {
  FreshMachine();
  File file;
  char byte = 0;
  EXPECT_EQ(WhatOf([&] { file.seek(0); }), "File::seek failed, not opened");
  EXPECT_EQ(WhatOf([&] { file.tell(); }), "File::tell failed, not opened");
  EXPECT_EQ(WhatOf([&] { file.read(&byte, 1); }), "File::read failed, not opened");
  EXPECT_EQ(WhatOf([&] { file.write(&byte, 1); }), "File::write failed, not opened");
  EXPECT_FALSE(file.flush());
  EXPECT_EQ(file.size(), 0xFFFFFFFFU);
  EXPECT_EQ(Diagnostics().fatalErrors, std::vector<std::uint32_t>(6, 0x49380D));
  file.close();
  file.close();
}

TEST(File, SaysWhatWasWantedAndWhatWasGot) {
  FreshMachine();
  SetFile("/a/f", "0123456789");
  File file;
  file.open("/a/f", kReadWrite, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL);
  char buffer[20];
  EXPECT_EQ(file.seek(4), 4U);
  EXPECT_EQ(WhatOf([&] { file.read(buffer, 20); }),
            "File::Read didn't read the entire buffer 20 read 6 GetLastError 0");
  EXPECT_EQ(file.read(buffer, 0), 0U);
  EXPECT_EQ(file.seek(1000), 1000U);
  EXPECT_EQ(WhatOf([&] { file.read(buffer, 1); }), "File::Read didn't read the entire buffer 1 read 0 GetLastError 0");
  EXPECT_EQ(WhatOf([&] { file.seek(0x80000000U); }), "File::Seek SetFilePointer failed, GetLastError=131");
  sim::Files().FailCallOf(Call::WriteFile, 1, Fault::Partial);
  file.seek(0);
  EXPECT_EQ(WhatOf([&] { file.write(buffer, 8); }),
            "File::Write didn't write the entire buffer 8 written 4 GetLastError 1117");
  EXPECT_EQ(Diagnostics().records.back().id, 0x0F000131U);
  EXPECT_EQ(Diagnostics().records.back().values[0], 8U);
  EXPECT_EQ(Diagnostics().records.back().values[1], 4U);
  sim::Files().FailCallOf(Call::WriteFile, 1, Fault::DoneButFailed);
  file.seek(0);
  EXPECT_EQ(WhatOf([&] { file.write(buffer, 8); }), "File::Write failed GetLastError code = 1117");
  EXPECT_EQ(Diagnostics().records.back().id, 0x0F000132U);

  sim::Files().FailCallOf(Call::CloseHandle, 1, Fault::Error);
  EXPECT_EQ(WhatOf([&] { file.close(); }), "File::Close failed GetLastError code = 1117");
  EXPECT_TRUE(file.IsOpen());
}

TEST(File, ErasesWhatItClosesAndAReaderHoldsItsFile) {
  FreshMachine();
  File file;
  file.open("/a/f", kReadWrite, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL);
  FileReader reader;
  EXPECT_EQ(WhatOf([&] { reader.open("/a/f"); }), "FileSystem::CreateFile error /a/f GetLastError code= 32");
  file.close();
  reader.open("/a/f");
  EXPECT_TRUE(reader.flush()) << "nothing to flush, no call";
  EXPECT_EQ(sim::Files().calls(Call::FlushFileBuffers), 1U);
  reader.close();
  file.erase();
  Diagnostics().Clear();
  EXPECT_EQ(WhatOf([&] { file.erase(); }), "File::Close failed GetLastError code = 2");
  EXPECT_TRUE(Diagnostics().HasWarning("FileSystem::Remove Error deleting file = /a/f GetLastError code = 2 "));
  EXPECT_EQ(WhatOf([&] { reader.open("/a/none"); }), "FileSystem::CreateFile error /a/none GetLastError code= 2");
}

TEST(FileSystem, WaitsForASharingViolationAndForNothingElse) {
  FreshMachine();
  SetFile("/a/f", "x");
  sim::SimFiles& files = sim::Files();
  files.FailCallOf(Call::CreateFile, 1, Fault::Busy);
  std::uint64_t slept = files.sleptMs;
  CloseHandle(FileSystem::CreateFileW("/a/f", GENERIC_READ, OPEN_EXISTING, 0));
  EXPECT_EQ(files.sleptMs - slept, 20U) << "free at the second attempt";
  EXPECT_TRUE(Diagnostics().HasError("FileSystem::CreateFile sharing violation file /a/f retry 0"));

  slept = files.sleptMs;
  files.FailCallOf(Call::MoveFile, 1, Fault::Busy, true);
  EXPECT_EQ(WhatOf([&] { FileSystem::MoveFileW(std::string("/a/f"), std::string("/a/g")); }),
            "FileSystem::MoveFile error /a/f -> /a/g GetLastError code= 32");
  EXPECT_TRUE(Diagnostics().HasWarning("FileSystem::MoveFile sharing violation file retrying 24"));
  EXPECT_EQ(files.sleptMs - slept, 500U);
  files.Heal();
  EXPECT_TRUE(FileSystem::MoveFileW(std::string("/a/f"), std::string("/a/g")));
  EXPECT_EQ(WhatOf([&] { FileSystem::MoveFileW(std::string("/a/f"), std::string("/a/h")); }),
            "FileSystem::MoveFile error /a/f -> /a/h GetLastError code= 2");
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
  std::string whole;
  FileSystem::GetFileChksum("/a/f", whole);
  EXPECT_EQ(whole, TextOf(HashOf(content)));
  EXPECT_TRUE(FileSystem::ValidateFile("/a/f", whole));
  std::string upper = whole;
  for (char& c : upper) c = static_cast<char>(std::toupper(c));
  EXPECT_FALSE(FileSystem::ValidateFile("/a/f", upper));

  FileReader reader;
  reader.open("/a/f");
  const std::uint64_t reads = sim::Files().calls(Call::ReadFile);
  Hash raw;
  FileSystem::GetFileChksum(reader, raw, 100);
  EXPECT_EQ(raw.toString(), whole);
  EXPECT_EQ(sim::Files().calls(Call::ReadFile) - reads, 10U);
  FileSystem::GetFileChksum(reader, raw, 0);
  EXPECT_EQ(raw.toString(), "d41d8cd98f0b24e980998ecf8427e") << "nothing is left";
}

TEST(Checksum, AFileCarriesItsOwnDigest) {
  FreshMachine();
  const std::string empty = Hex("d41d8cd98f00b204e9800998ecf8427e");
  const struct {
    std::string bytes;
    bool valid;
  } rows[] = {
      {empty, true},
      {std::string(16, 'x'), false},
      {Hex("900150983cd24fb0d6963f7d28e17f72") + "abc", true},
      {Hex("900150983cd24fb0d6963f7d28e17f72") + "abd", false},
  };
  std::string path = "/a/f";
  for (const auto& row : rows) {
    SetFile(path, row.bytes);
    EXPECT_EQ(ChkFile::Validate(path), row.valid);
  }
  SetFile(path, std::string(15, 'x'));
  EXPECT_EQ(WhatOf([&] { ChkFile::Validate(path); }),
            "File::Read didn't read the entire buffer 16 read 15 GetLastError 0");
  EXPECT_EQ(sim::Files().openHandles(), 0U);
}

TEST(BlobPair, ReadsABodyOrSkipsIt) {
  FreshMachine();
  const std::string record = StoreRecord(1, std::string(1000, 'd'));
  SetFile("/a/f", record.substr(16));
  File file;
  file.open("/a/f", kReadWrite, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL);
  BlobPair head;
  head.Read(file, true);
  EXPECT_EQ(head.buffer.size, 1000U);
  EXPECT_EQ(head.buffer.data, nullptr);
  EXPECT_EQ(file.tell(), 1020U);

  std::string bytes(1001, '.');
  BlobPair pair;
  pair.buffer = {reinterpret_cast<unsigned char*>(bytes.data()), 1000};
  file.seek(0);
  Diagnostics().Clear();
  pair.Read(file, false);
  EXPECT_EQ(bytes, std::string(1000, 'd') + ".");
  EXPECT_TRUE(Diagnostics().lines.empty());

  // Checked over the whole buffer, which is larger than the blob.
  pair.buffer.size = 1001;
  file.seek(0);
  EXPECT_EQ(WhatOf([&] { pair.Read(file, false); }), "BlobPair Read failed");
  EXPECT_EQ(pair.buffer.size, 1001U);
  EXPECT_TRUE(Diagnostics().HasError("BlobPair::buffer.size(1001) != size(1000)"));

  // One byte short: five looks at the size, 200 ms apart.
  pair.buffer.size = 999;
  file.seek(0);
  Diagnostics().Clear();
  EXPECT_EQ(WhatOf([&] { pair.Read(file, false); }), "BlobPair::Read : too large size");
  EXPECT_EQ(Diagnostics().lines.size(), 6U);
  EXPECT_EQ(Diagnostics().lines[5].text,
            "BlobPair::Read path=/a/f offset=0 bsize=1000 hash=" + TextOf(HashOf(std::string(1000, 'd'))));
}

TEST(Hash, IsOrderedBytewiseAndPrintedWithoutLeadingZeros) {
  unsigned char low[16] = {0x7f};
  unsigned char high[16] = {0x80};
  unsigned char last[16] = {0x80};
  last[15] = 1;
  Hash a, b, c, zero;
  a.setHash(low);
  b.setHash(high);
  c.setHash(last);
  EXPECT_TRUE(a < b && b < c && !(c < b) && !(b < b));
  EXPECT_EQ(zero.toString(), "0000000000000000");
  unsigned char mixed[16] = {0x0a, 0xff};
  a.setHash(mixed);
  EXPECT_EQ(a.toString(), "aff00000000000000");
}

}  // namespace
}  // namespace test
