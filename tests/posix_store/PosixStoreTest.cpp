// The store on the real file system: what a simulated one cannot show.
#include <blobring/blobring.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>
#include <string>

#include "fs/FileSystem.h"

namespace {

namespace fs = std::filesystem;

// A directory of its own, gone at the end.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (fs::temp_directory_path() / "blobring-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no directory " + pattern);
    path = pattern;
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory() { fs::remove_all(path); }
  fs::path path;
};

std::u16string Wide(const fs::path& path) {
  std::u16string wide;
  for (const char c : path.string()) wide.push_back(static_cast<unsigned char>(c));
  return wide;
}

struct Store {
  explicit Store(const fs::path& directory, int slots = 2)
      : index(BCInitialize(Wide(directory).c_str())) {
    for (int slot = 0; slot < slots; ++slot) BCAddPackDir(index, Wide(directory).c_str());
    BCSetDamagePolicy(index, BLOBRING_DAMAGE_KEEP);
    loaded = BCLoad(index) == 1;
  }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;
  ~Store() { BCDispose(index); }

  bool Put(const std::string& data) const {
    unsigned char hash[BLOBRING_HASH_SIZE];
    return BCPut(index, reinterpret_cast<const unsigned char*>(data.data()),
                 static_cast<int>(data.size()), hash) == 1;
  }
  bool Start(long long id) const { return BCStartTransaction(index, &id) == 1; }
  bool End(long long id) const { return BCEndTransaction(index, &id) == 1; }
  bool Has(const std::string& data) const {
    unsigned char hash[BLOBRING_HASH_SIZE];
    BCMD5ChkSum(reinterpret_cast<const unsigned char*>(data.data()),
                static_cast<unsigned>(data.size()), hash);
    if (BCGetSize(index, hash) != static_cast<int>(data.size())) return false;
    std::string read(data.size(), '\0');
    return BCGet(index, hash, reinterpret_cast<unsigned char*>(read.data()),
                 static_cast<int>(read.size())) == 0 &&
           read == data;
  }

  int index;
  bool loaded = false;
};

TEST(PosixStore, KeepsBlobsUnderAPathOfAnyBytes) {
  const TemporaryDirectory temporary;
  const fs::path directory = temporary.path / "caf\xC3\xA9 \xFF";
  fs::create_directory(directory);
  {
    const Store store(directory);
    ASSERT_TRUE(store.loaded && store.Start(1) && store.Put("a") && store.End(1));
    EXPECT_EQ(BCRepack(store.index), 1);
  }
  struct stat status {};
  ASSERT_EQ(::stat((directory / "1.pak").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  const Store again(directory);
  EXPECT_TRUE(again.Has("a"));
}

// And a journal keeps room for 64 transactions of one delete.
TEST(PosixStore, AFileEndsBelow2GiB) {
  const TemporaryDirectory temporary;
  { const Store fresh(temporary.path, 1); }
  constexpr std::uint32_t kEnd = 0x7FFFFFFFU;
  constexpr std::uint32_t kKept = 64 * (40 + 32 + 16);
  constexpr std::uint32_t kStart = kEnd - kKept - (40 + 37 + 16);  // room for one blob of one byte
  const fs::path journal = temporary.path / "0.jrn";
  fs::resize_file(journal, kStart);
  {
    std::fstream file(journal, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(20);
    for (unsigned shift = 0; shift < 32; shift += 8) file.put(static_cast<char>(kStart >> shift));
  }
  const int index = BCInitialize(Wide(temporary.path).c_str());
  BCAddPackDir(index, Wide(temporary.path).c_str());
  const auto put = [&](const char* data, int size) {
    unsigned char hash[BLOBRING_HASH_SIZE];
    return BCPut(index, reinterpret_cast<const unsigned char*>(data), size, hash);
  };
  EXPECT_EQ(put("ab", 2), 0) << "with the end record it would be too long";
  EXPECT_EQ(put("a", 1), 1);
  EXPECT_EQ(put("", 0), 0);
  const long long id = 1;
  EXPECT_EQ(BCEndTransaction(index, &id), 1) << "what was written is committed";
  EXPECT_EQ(fs::file_size(journal), kEnd - kKept);
  unsigned char hash[BLOBRING_HASH_SIZE];
  BCMD5ChkSum(reinterpret_cast<const unsigned char*>("a"), 1, hash);
  EXPECT_EQ(BCDelete(index, hash), 1);
  EXPECT_EQ(BCEndTransaction(index, &id), 1);
  BCDispose(index);
}

TEST(PosixStore, ASecondProcessIsRefusedAndACrashedHolderLeavesNoLock) {
  const TemporaryDirectory temporary;
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t holder = ::fork();
  if (holder == 0) {
    const Store store(temporary.path);
    const bool good =
        store.Start(1) && store.Put("held") && store.End(1) && store.Start(2) && store.Put("open");
    const char byte = good ? '+' : '-';
    if (::write(ready[1], &byte, 1) == 1) ::pause();
    ::_exit(1);
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  ASSERT_EQ(byte, '+');
  {
    const int index = BCInitialize(Wide(temporary.path).c_str());
    EXPECT_THROW(BCAddPackDir(index, Wide(temporary.path).c_str()), std::runtime_error);
    BCDispose(index);
  }
  ::kill(holder, SIGKILL);
  ::waitpid(holder, nullptr, 0);
  const Store store(temporary.path);
  EXPECT_TRUE(store.loaded && store.Has("held"));
  EXPECT_FALSE(store.Has("open"));
  ::close(ready[0]);
  ::close(ready[1]);
}

// A file-size limit stands for a full disk: the write fails part way.
TEST(PosixStore, AFullDiskIsReportedAndForgottenOnceThereIsRoom) {
  const TemporaryDirectory temporary;
  ::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  const Store store(temporary.path, 1);
  ASSERT_TRUE(store.Start(1) && store.Put("committed") && store.End(1));
  rlimit limit = before;
  limit.rlim_cur = 300000;
  ::setrlimit(RLIMIT_FSIZE, &limit);
  ASSERT_TRUE(store.Start(2));
  EXPECT_FALSE(store.Put(std::string(600000, 'x')));
  EXPECT_TRUE(store.Put("fits"));
  ASSERT_TRUE(store.Put(std::string(400000, 'y'))) << "gathered; the commit will tell";
  EXPECT_FALSE(store.End(2));
  EXPECT_TRUE(store.Has("committed"));
  EXPECT_EQ(BCFsck(store.index), 1);
  ::setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_TRUE(store.End(2)) << "once there is room";
  EXPECT_TRUE(store.Has("fits") && store.Has(std::string(400000, 'y')));
}

TEST(FileSystem, ListsAndDeletesTrees) {
  const TemporaryDirectory directory;
  const std::string top = directory.path / "d", none = directory.path / "none";
  const auto wide = [](const std::string& path) { return FileSystem::ConvertString(path); };
  EXPECT_NE(FileSystem::CreateDirectoryW(wide(top)), 0);
  EXPECT_EQ(FileSystem::CreateDirectoryW(wide(top)), 0);
  fs::create_directory(top + "/old");
  for (const char* name : {"/0.pak", "/0.jrn", "/old/1.pak"}) std::ofstream(top + name) << "x";
  FileSystem::NarrowPaths packs, all;
  FileSystem::ReadDirectory(top, packs, ".pak");
  EXPECT_EQ((std::set<std::string>(packs.begin(), packs.end())),
            (std::set<std::string>{top + "/0.pak", top + "/old/1.pak"}));
  FileSystem::ReadDirectory(top, all, "");
  EXPECT_NE(std::find(all.begin(), all.end(), top + "/.."), all.end());
  EXPECT_LT(std::find(all.begin(), all.end(), top + "/old/1.pak"),
            std::find(all.begin(), all.end(), top + "/old"));
  const std::size_t count = all.size();
  FileSystem::ReadDirectory(none, all, "");
  EXPECT_EQ(all.size(), count);

  EXPECT_EQ(FileSystem::DeleteDirectory(wide(none), true), 0U);
  EXPECT_EQ(FileSystem::DeleteDirectory(wide(top), false), 0U);
  EXPECT_FALSE(fs::exists(top + "/0.pak"));
  std::ofstream(top + "/old/.keep") << "x";
  EXPECT_EQ(FileSystem::DeleteDirectory(wide(top), true), ERROR_DIR_NOT_EMPTY);
  EXPECT_TRUE(fs::exists(top + "/old/.keep"));
  fs::remove(top + "/old/.keep");
  EXPECT_EQ(FileSystem::DeleteDirectory(wide(top), true), 0U);
  EXPECT_FALSE(fs::exists(top));
}

}  // namespace
