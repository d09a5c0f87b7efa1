// The store on the real file system: what a simulated one cannot show. The preset "threads" builds
// it with ThreadSanitizer.
#include <blobring/Store.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>

#include "fs/FileSystem.h"

namespace {

using blobring::Store;
namespace fs = std::filesystem;

std::u16string Wide(const fs::path& path) {
  return FileSystem::ConvertString(path.string());
}

// In a directory of its own, whose name is not UTF-8.
class OnDisk : public testing::Test {
 protected:
  OnDisk() {
    std::string pattern = testing::TempDir() + "caf\xC3\xA9 \xFF.XXXXXX";
    root = mkdtemp(pattern.data());
    for (const char* name : {"a", "b"}) fs::create_directory(root / name);
  }
  ~OnDisk() override { fs::remove_all(root); }

  fs::path root;
};

// Everything that a store can do, with failures on the way.
void Live(Store& store) {
  for (int round = 0; round < 20; ++round) {
    blobring::Transaction change(store, round);
    for (int i = 0; i < 50; ++i) store.put(std::to_string(round * 1000 + i));
    change.commit();
    store.erase(*store.hashes().begin());
    EXPECT_EQ(BCPut(store.index(), nullptr, 1, nullptr), 0);
    EXPECT_EQ(store.lastFailure(), "BCPut: data is null");
    EXPECT_EQ(BCDelete(-1, nullptr), 0);
    EXPECT_EQ(BCLastErrorCode(-1), BLOBRING_ERROR_NO_STORE);
    EXPECT_EQ(store.check(), Store::Checked::Sound);
    EXPECT_TRUE(store.repack());
    EXPECT_EQ(store.stats().blobCount, 49U * static_cast<unsigned>(round + 1));
  }
}

TEST_F(OnDisk, TwoStoresLiveOnTwoThreads) {
  Store a(root / "a");
  Store b(root / "b");
  std::thread other([&] { Live(b); });
  Live(a);
  other.join();
}

TEST_F(OnDisk, AForkedChildReadsAndChangesNothing) {
  Store store(root / "a", {.slots = 1});
  const blobring::Hash hash = store.put("before");
  store.repack();  // whose journal is used again, and cut on close
  blobring::Transaction change(store);
  store.put("pending");
  const int index = store.index();
  const long long id = 0;
  unsigned char data[] = {'x'}, out[BLOBRING_HASH_SIZE];
  const auto isRefused = [&](int result) {
    return result == 0 && BCLastErrorCode(index) == BLOBRING_ERROR_REFUSED;
  };
  int committed[2];
  ASSERT_EQ(pipe(committed), 0);
  const pid_t child = fork();
  if (child == 0) {
    const bool good = store.contains(hash) && isRefused(BCEndTransaction(index, &id)) &&
                      isRefused(BCPut(index, data, 1, out)) && isRefused(BCRepack(index)) &&
                      isRefused(BCLoad(index)) && store.contains(hash);
    close(committed[1]);
    char byte = 0;
    const ssize_t size = read(committed[0], &byte, 1);
    store.close();  // must not cut off what was committed since
    _exit(good && size == 1 ? 0 : 1);
  }
  change.commit();
  const fs::path strangers = root / "b/file";
  std::ofstream(strangers) << "precious";
  fs::create_symlink(strangers, root / "a/0.pak.new");
  EXPECT_TRUE(store.repack()) << "although the child has its descriptors";
  EXPECT_EQ(fs::file_size(strangers), 8U);
  store.put(std::string(400000, 'p'));
  store.close();
  EXPECT_EQ(Store(root / "a", {.slots = 1}).stats().blobCount, 3U) << "although the child has it";
  ASSERT_EQ(write(committed[1], "x", 1), 1);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(Store(root / "a", {.slots = 1}).stats().blobCount, 3U);
}

TEST_F(OnDisk, ListsAndDeletesTrees) {
  const std::string top = root / "d";
  FileSystem::CreateDirectoryW(top);
  FileSystem::CreateDirectoryW(top + "/old");
  for (const char* name : {"/0.pak", "/0.jrn", "/old/1.pak"}) std::ofstream(top + name) << "x";
  fs::permissions(top + "/0.pak", fs::perms(0400));
  fs::create_symlink(root / "a", top + "/link");
  FileSystem::NarrowPaths packs;
  FileSystem::ReadDirectory(top, packs, ".pak");
  EXPECT_EQ((std::set<std::string>(packs.begin(), packs.end())),
            (std::set<std::string>{top + "/0.pak", top + "/old/1.pak"}));

  EXPECT_EQ(FileSystem::DeleteDirectory(Wide(top), false), 0U);
  EXPECT_TRUE(!fs::exists(top + "/0.pak") && fs::exists(top + "/old/1.pak"));
  fs::create_symlink(root / "a", top + "/old/link");
  std::ofstream(top + "/old/.keep") << "x";
  EXPECT_EQ(FileSystem::DeleteDirectory(Wide(top), true), ERROR_DIR_NOT_EMPTY);
  EXPECT_TRUE(fs::remove(top + "/old/.keep"));
  EXPECT_EQ(FileSystem::DeleteDirectory(Wide(top), true), 0U);
  EXPECT_TRUE(!fs::exists(top) && fs::exists(root / "a")) << "no link is followed";
}

}  // namespace
