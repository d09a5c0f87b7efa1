// Two stores on two threads, and what a process must not share. The preset
// "threads" builds it with ThreadSanitizer.
#include <blobring/Store.h>
#include <blobring/host.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <thread>

namespace {

namespace fs = std::filesystem;

class OnDisk : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "blobring-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    root = pattern;
    for (const char* name : {"a", "b"}) fs::create_directory(root / name);
  }
  void TearDown() override {
    BlobringHostSetTraceSink(nullptr, nullptr);
    fs::remove_all(root);
  }

  fs::path root;
};

int CodeOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const blobring::Error& e) {
    return e.code();
  }
  return BLOBRING_ERROR_NONE;
}

// Everything that a store can do, with failures on the way.
void Live(blobring::Store& store) {
  for (int round = 0; round < 20; ++round) {
    blobring::Transaction change(store, round);
    for (int i = 0; i < 50; ++i) store.put(std::to_string(round * 1000 + i));
    change.commit();
    store.erase(*store.hashes().begin());
    EXPECT_EQ(BCPut(store.index(), nullptr, 1, nullptr), 0);
    EXPECT_EQ(store.lastFailure(), "BCPut: data is null");
    EXPECT_EQ(BCDelete(-1, nullptr), 0);
    EXPECT_EQ(BCLastErrorCode(-1), BLOBRING_ERROR_NO_STORE);
    EXPECT_EQ(blobring::Hash::of({}).text(), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(store.check(), blobring::Store::Checked::Sound);
    EXPECT_TRUE(store.repack());
    EXPECT_EQ(store.stats().blobCount, 49U * static_cast<unsigned>(round + 1));
  }
}

TEST_F(OnDisk, TwoStoresLiveOnTwoThreads) {
  blobring::Store a(root / "a");
  blobring::Store b(root / "b");
  std::thread other([&] { Live(b); });
  Live(a);
  other.join();
}

// A sink that calls back is told no, once, whatever it does with that.
TEST_F(OnDisk, ASinkCannotTakeTheStoreAway) {
  blobring::Store store(root / "a");
  struct Seen {
    int index, lines, results;
  } seen{store.index(), 0, 0};
  BlobringHostSetTraceSink(
      [](void* context, int, const char*, const char*) {
        Seen& in = *static_cast<Seen*>(context);
        ++in.lines;
        in.results += BCDispose(in.index) + BCOpen("/", nullptr);
      },
      &seen);
  EXPECT_EQ(BCPut(store.index(), nullptr, 1, nullptr), 0);
  EXPECT_EQ(seen.results, -seen.lines) << "0 and -1 each time";
  BlobringHostSetTraceSink(nullptr, nullptr);
  EXPECT_TRUE(store.contains(store.put("still open")));
}

TEST_F(OnDisk, AForkedChildReadsAndChangesNothing) {
  blobring::Store store(root / "a");
  const blobring::Hash hash = store.put("before");
  blobring::Transaction change(store);
  store.put("pending");
  const pid_t child = fork();
  if (child == 0) {
    const bool reads = store.contains(hash);
    const bool refused = CodeOf([&] { change.commit(); }) == BLOBRING_ERROR_REFUSED &&
                         CodeOf([&] { store.put("x"); }) == BLOBRING_ERROR_REFUSED &&
                         CodeOf([&] { store.repack(); }) == BLOBRING_ERROR_REFUSED;
    store.close();
    _exit(reads && refused ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  change.commit();
  store.close();
  const blobring::Store again(root / "a", {.readOnly = true});
  EXPECT_EQ(again.stats().blobCount, 2U);
}

// Not even a file's time changes, and damage is shown rather than moved aside.
TEST_F(OnDisk, ReadOnlyChangesNothing) {
  blobring::Hash hash;
  {
    blobring::Store store(root / "a");
    hash = store.put("blob");
    store.repack();
    store.put("later");
  }
  fs::resize_file(root / "a" / "1.pak", 30);
  for (const fs::directory_entry& file : fs::directory_iterator(root / "a")) {
    fs::permissions(file, fs::perms::owner_read);
    fs::last_write_time(file, fs::file_time_type());
  }
  {
    blobring::Store store(root / "a", {.readOnly = true});
    EXPECT_EQ(store.stats().damaged, 1);
    EXPECT_TRUE(store.contains(hash)) << "of the older generation";
    EXPECT_EQ(CodeOf([&] { store.put("x"); }), BLOBRING_ERROR_READ_ONLY);
    EXPECT_EQ(CodeOf([&] { store.erase(hash); }), BLOBRING_ERROR_READ_ONLY);
    EXPECT_EQ(CodeOf([&] { store.repack(); }), BLOBRING_ERROR_READ_ONLY);
  }
  int files = 0;
  for (const fs::directory_entry& file : fs::directory_iterator(root / "a")) {
    ++files;
    EXPECT_EQ(file.last_write_time(), fs::file_time_type()) << file;
  }
  EXPECT_EQ(files, 4);
}

}  // namespace
