// The layers below a store by themselves: what no store shows. The fuzzer compares stores with a
// model.
#include <gtest/gtest.h>

#include "fs/ChkFile.h"
#include "fs/File.h"
#include "fs/FileSystem.h"
#include "store/BlobIndex.h"
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

// A hash that begins as all others do, as only a hostile file has them.
Hash InOneBucket(std::uint64_t n) {
  unsigned char bytes[Hash::kSize] = {5};
  for (int i = 0; i < 8; ++i) bytes[15 - i] = static_cast<unsigned char>(n >> (8 * i));
  Hash hash;
  hash.setHash(bytes);
  return hash;
}

// In a list or a tree out of balance this takes hours.
TEST(Index, KeepsItsBalanceWithKeysInOrderAndInOneBucket) {
  BlobIndex index;
  bool isNew = false;
  constexpr std::uint64_t kCount = 300'000;
  for (std::uint64_t n = 0; n < kCount; ++n) index.FindOrMake(InOneBucket(n), isNew);
  for (std::uint64_t n = kCount; n-- > 0;) ASSERT_NE(index.Find(InOneBucket(n)), index.end());
  std::uint64_t next = 0;
  const BlobIndex& read = index;
  for (auto blob = read.begin(); blob != read.end(); blob = read.After(blob->first), ++next)
    ASSERT_TRUE(blob->first == InOneBucket(next));
  EXPECT_EQ(next, kCount);
  for (std::uint64_t n = 0; n < kCount; ++n) index.Erase(InOneBucket(n));
  EXPECT_TRUE(index.empty());
}

}  // namespace
}  // namespace test
