// The bytes on disk, written by hand here. What a load makes of others is left to the fuzzer.
#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/support/JournalBytes.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

TEST(Format, TheFilesOfAStoreFromItsFirstByteToItsFirstRepack) {
  FreshMachine();
  const OpenedStore store(2);
  for (const char* slot : {"/s/0", "/s/1"}) {
    const std::string rest = " 00000000 01000000 18000000", path = slot;
    EXPECT_EQ(FileBytes(path + ".pak"), Hex("00040000 00000000 01000000" + rest));
    EXPECT_EQ(FileBytes(path + ".jrn"), Hex("00040000 00000000 00000000" + rest));
  }
  ASSERT_TRUE(store.Commit(5, {"abc"}));
  EXPECT_EQ(FileBytes("/s/0.jrn"), Hex("00040000 03000000 00000000 00000000 01000000 77000000"
                                       "02000000 00000000 0500000000000000"
                                       "03000000 27000000 a8bae5c961c45b9db2f338fe4956f56f"
                                       "00000000 00000000 0500000000000000"
                                       "900150983cd24fb0d6963f7d28e17f72 03000000 616263"
                                       "03000000 00000000 0500000000000000"));
  const std::string large(2000, 'x');
  ASSERT_TRUE(store.Start(-2) && store.Delete("abc") && store.Store(large) && store.End(7));
  ASSERT_TRUE(store.Commit(3, {"three"}));
  ASSERT_TRUE(store.Commit(-9, {"nine"}));
  const std::string journal = FileBytes("/s/0.jrn");
  EXPECT_EQ(journal, JournalBytes()
                         .Transaction(5, {StoreRecord(5, "abc")})
                         .Transaction(-2, {DeleteRecord(-2, "abc"), StoreRecord(-2, large)}, 7)
                         .Transaction(3, {StoreRecord(3, "three")})
                         .Transaction(-9, {StoreRecord(-9, "nine")})
                         .Bytes());
  ASSERT_EQ(BCRepack(store.index), 1);
  const std::vector<std::string> blobs = {StoreRecord(-9, "nine"), StoreRecord(-2, large),
                                          StoreRecord(3, "three")};
  EXPECT_EQ(FileBytes("/s/1.pak"), JournalBytes(1, 1).Transaction(0, blobs).Bytes());
  EXPECT_EQ(FileBytes("/s/1.jrn"), Hex("00040000 00000000 00000000 ffffffff 01000000 18000000"));
  EXPECT_EQ(FileBytes("/s/0.jrn"), journal) << "the old generation stays";
}

// Unless it was cut off at its creation: zeros, or the beginning of a fresh header.
TEST(Format, AFileThatIsTooShortIsRefusedAndLeftAlone) {
  FreshMachine();
  const std::string bytes("\0\5", 2);
  SetFile("/s/0.jrn", bytes);
  EXPECT_THROW(OpenedStore(), std::runtime_error);
  EXPECT_EQ(FileBytes("/s/0.jrn"), bytes);
}

}  // namespace
}  // namespace test
