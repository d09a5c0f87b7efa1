// The file layer by itself: checksums, which no store shows.
#include <gtest/gtest.h>

#include "fs/ChkFile.h"
#include "fs/File.h"
#include "fs/FileSystem.h"
#include "pack/Hash.h"
#include "tests/support/JournalBytes.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using sim::Call;

TEST(Checksum, CoversTheRestOfAFileInPieces) {
  FreshMachine();
  const std::string content(1000, 'c');
  SetFile("/a/f", content);
  for (const auto& [from, limit, reads] :
       {std::tuple(0U, 100U, 10U), {600U, 100U, 4U}, {1000U, 100U, 0U}, {0U, 4096U, 2U}}) {
    FileReader reader;
    reader.open("/a/f");
    reader.seek(from);
    const std::uint64_t before = sim::Files().calls(Call::ReadFile);
    Hash raw;
    FileSystem::GetFileChksum(reader, raw, limit);
    EXPECT_EQ(raw.toString(), TextOf(HashOf(content.substr(from))));
    EXPECT_EQ(sim::Files().calls(Call::ReadFile) - before, reads);
  }
  EXPECT_TRUE(FileSystem::ValidateFile("/a/f", TextOf(HashOf(content))));

  // A file that carries its own digest before its contents.
  std::string path = "/a/g";
  for (const char* last : {"c", "d", ""}) {
    SetFile(path, Hex("900150983cd24fb0d6963f7d28e17f72") + "ab" + last);
    EXPECT_EQ(ChkFile::Validate(path), *last == 'c');
  }
}

}  // namespace
}  // namespace test
