// The store on the real file system: what a simulated one cannot show.
#include <blobring/blobring.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "fs/FileSystem.h"

namespace {

namespace fs = std::filesystem;

std::u16string Wide(const fs::path& path) {
  return FileSystem::ConvertString(path.string());
}

// In a directory of its own, whose name is not UTF-8.
class PosixStore : public testing::Test {
 protected:
  PosixStore() {
    std::string pattern = testing::TempDir() + "caf\xC3\xA9 \xFF.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    directory = pattern;
    Open();
  }
  ~PosixStore() override {
    BCDispose(store);
    fs::remove_all(directory);
  }

  void Open() {
    BCDispose(store);
    store = BCInitialize(Wide(directory).c_str());
    BCAddPackDir(store, Wide(directory).c_str());
  }
  int Put(const std::string& data) const {
    unsigned char hash[BLOBRING_HASH_SIZE];
    return BCPut(store, reinterpret_cast<const unsigned char*>(data.data()),
                 static_cast<int>(data.size()), hash);
  }
  int End() const {
    const long long id = 0;
    return BCEndTransaction(store, &id);
  }
  bool Has(const std::string& data) const {
    unsigned char hash[BLOBRING_HASH_SIZE];
    BCMD5ChkSum(reinterpret_cast<const unsigned char*>(data.data()),
                static_cast<unsigned>(data.size()), hash);
    return BCGetSize(store, hash) == static_cast<int>(data.size());
  }

  fs::path directory;
  int store = -1;
};

// And a journal keeps room for 64 transactions of one delete.
TEST_F(PosixStore, AFileEndsBelow2GiB) {
  constexpr std::uint32_t kEnd = 0x7FFFFFFFU - 64 * (40 + 32 + 16);
  constexpr std::uint32_t kStart = kEnd - (40 + 37 + 16);  // room for one blob of one byte
  BCDispose(store);
  const fs::path journal = directory / "0.jrn";
  fs::resize_file(journal, kStart);
  std::fstream file(journal, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(20);
  for (unsigned shift = 0; shift < 32; shift += 8) file.put(static_cast<char>(kStart >> shift));
  file.close();
  Open();
  EXPECT_EQ(Put("ab"), 0) << "with the end record it would be too long";
  EXPECT_EQ(Put("a"), 1);
  EXPECT_EQ(Put(""), 0);
  EXPECT_EQ(End(), 1) << "what was written is committed";
  EXPECT_EQ(fs::file_size(journal), kEnd);
  unsigned char hash[BLOBRING_HASH_SIZE];
  BCMD5ChkSum(reinterpret_cast<const unsigned char*>("a"), 1, hash);
  EXPECT_EQ(BCDelete(store, hash) + End(), 2);
}

// A file-size limit stands for a full disk: the write fails part way, and the signal that goes with
// the limit (SIGXFSZ) would end the test.
TEST_F(PosixStore, AFullDiskIsReportedAndForgottenOnceThereIsRoom) {
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  ASSERT_EQ(BCLoad(store) + Put("committed") + End(), 3);
  rlimit limit = before;
  limit.rlim_cur = 300000;
  setrlimit(RLIMIT_FSIZE, &limit);
  EXPECT_EQ(Put(std::string(600000, 'x')), 0);
  EXPECT_EQ(Put("fits"), 1);
  EXPECT_EQ(Put(std::string(400000, 'y')), 1) << "gathered; the commit will tell";
  EXPECT_EQ(End(), 0);
  EXPECT_TRUE(Has("committed"));
  EXPECT_EQ(BCFsck(store), 1);
  setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_EQ(End(), 1) << "once there is room";
  EXPECT_EQ(BCRepack(store), 1);
  EXPECT_TRUE(Has("committed") && Has("fits") && Has(std::string(400000, 'y')));
}

TEST_F(PosixStore, ListsAndDeletesTrees) {
  const std::string top = directory / "d";
  FileSystem::CreateDirectoryW(top);
  FileSystem::CreateDirectoryW(top + "/old");
  for (const char* name : {"/0.pak", "/0.jrn", "/old/1.pak"}) std::ofstream(top + name) << "x";
  fs::permissions(top + "/0.pak", fs::perms(0400));
  fs::create_symlink(directory, top + "/link");
  FileSystem::NarrowPaths packs;
  FileSystem::ReadDirectory(top, packs, ".pak");
  EXPECT_EQ((std::set<std::string>(packs.begin(), packs.end())),
            (std::set<std::string>{top + "/0.pak", top + "/old/1.pak"}));

  EXPECT_EQ(FileSystem::DeleteDirectory(Wide(top), false), 0U);
  EXPECT_TRUE(!fs::exists(top + "/0.pak") && fs::exists(top + "/old/1.pak"));
  fs::create_symlink(directory, top + "/old/link");
  std::ofstream(top + "/old/.keep") << "x";
  EXPECT_EQ(FileSystem::DeleteDirectory(Wide(top), true), ERROR_DIR_NOT_EMPTY);
  EXPECT_TRUE(fs::remove(top + "/old/.keep"));
  EXPECT_EQ(FileSystem::DeleteDirectory(Wide(top), true), 0U);
  EXPECT_TRUE(!fs::exists(top) && fs::exists(directory / "0.pak")) << "no link is followed";
}

}  // namespace
