// Two stores on two threads, and what a process must not share, on real files. The preset "threads"
// builds it with ThreadSanitizer.
#include <blobring/Store.h>
#include <blobring/host.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>

namespace {

using blobring::Store;
namespace fs = std::filesystem;

class OnDisk : public testing::Test {
 protected:
  OnDisk() {
    std::string pattern = (fs::temp_directory_path() / "blobring-XXXXXX").string();
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

// Calls from a sink are refused. The refusal is traced once, or the sink would call again for it.
TEST_F(OnDisk, ASinkCannotTakeTheStoreAway) {
  Store store(root / "a");
  static int index, lines, results;
  index = store.index(), lines = results = 0;
  BlobringHostSetTraceSink(
      [](void*, int, const char*, const char*) {
        ++lines;
        results += BCDispose(index) + BCOpen("/", nullptr);
      },
      nullptr);
  EXPECT_EQ(BCPut(index, nullptr, 1, nullptr), 0);
  BlobringHostSetTraceSink(nullptr, nullptr);
  EXPECT_EQ(results, -lines) << "0 and -1 each time";
  EXPECT_TRUE(store.contains(store.put("still open")));
}

TEST_F(OnDisk, AForkedChildReadsAndChangesNothing) {
  Store store(root / "a");
  const blobring::Hash hash = store.put("before");
  blobring::Transaction change(store);
  store.put("pending");
  const int index = store.index();
  const long long id = 0;
  unsigned char data[] = {'x'}, out[BLOBRING_HASH_SIZE];
  const auto isRefused = [&](int result) {
    return result == 0 && BCLastErrorCode(index) == BLOBRING_ERROR_REFUSED;
  };
  const pid_t child = fork();
  if (child == 0) {
    const bool good = store.contains(hash) && isRefused(BCEndTransaction(index, &id)) &&
                      isRefused(BCPut(index, data, 1, out)) && isRefused(BCRepack(index));
    store.close();
    _exit(good ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  change.commit();
  store.close();
  EXPECT_EQ(Store(root / "a").stats().blobCount, 2U);
}

}  // namespace
