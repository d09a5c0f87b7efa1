// The store on the real file system: what a simulated one cannot show. The preset "threads" builds
// it with ThreadSanitizer.
#include <blobring/Store.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

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

// What only readers and a writer on one store show: every byte read is right, every blob whose
// commit had returned before the read began is found, and none waits for a flush or for copying.
// Blob 0 is read in pieces; those of kSome come and go.
class Sharing {
 public:
  Sharing(const fs::path& directory, unsigned slots) : store(directory, {.slots = slots}) {
    Commit(1);
  }

  static std::string Bytes(int number) {
    const auto size = static_cast<std::size_t>(number == 0 ? 1100000 : number % 7 * 900);
    std::string bytes(size, static_cast<char>(number));
    return bytes += std::to_string(number);
  }

  // Until the store is closed.
  void ReadOn(unsigned seed) {
    while (ReadOnce(seed += 7919)) ++reads;
    ++reads;
  }

  void Write() {
    std::thread slow([this] { ReadSlowly(); });
    while (!hasPiece) std::this_thread::yield();
    for (int round = 0; round < 4; ++round) {
      Commit(10);
      {
        const blobring::Transaction abandoned(store);
        store.put(Bytes(stored + 2));
        store.put(Bytes(0) + "longer");  // written over what is behind the last record
      }
      store.eraseMany(std::vector{HashOf(kSome[0]), HashOf(kSome[1])});
      EXPECT_TRUE(store.repack([this](auto...) { return WaitForReads(), true; }));
      for (const int number : kSome) store.put(Bytes(number));
      ++repacks;
    }
    slow.join();
    failsFlush = true;
    EXPECT_THROW(store.put("in doubt"), blobring::Error);
    EXPECT_TRUE(store.stats().inDoubt);
    WaitForReads();
    isClosing = true;
    BCShutdown(store.index(), true);
    BCDispose(store.index());
  }

  // Of this thread. The flush waits for reads, which a lock around it would hold up.
  static thread_local Sharing* writer;
  void WaitForReads() {
    const unsigned before = reads;
    for (int waited = 0; !isClosing && reads < before + 4; ++waited) {
      ASSERT_LT(waited, 30000) << "a read waits for this";
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  bool TakeFailure() { return std::exchange(failsFlush, false); }

 private:
  static constexpr std::array kSome = {1, 5};

  static blobring::Hash HashOf(int number) {
    const std::string bytes = Bytes(number);
    return blobring::Hash::of(std::as_bytes(std::span(bytes)));
  }

  void Commit(int count) {
    blobring::Transaction change(store, stored);
    for (int i = 0; i < count; ++i) store.put(Bytes(stored + i));
    change.commit();
    stored += count;
  }

  // Repacks take the blob elsewhere and commits overwrite where it was, between two of its pieces.
  void ReadSlowly() {
    std::string read;
    store.read(HashOf(0), [&](std::span<const std::byte> piece) {
      read.append(reinterpret_cast<const char*>(piece.data()), piece.size());
      hasPiece = true;
      while (repacks < 4) std::this_thread::yield();
      return true;
    });
    EXPECT_EQ(read, Bytes(0));
  }

  // False once the store is closed.
  bool ReadOnce(unsigned choice) try {
    const int known = stored, number = static_cast<int>(choice >> 8) % known;
    const std::string wanted = Bytes(number);
    const blobring::Hash hash = HashOf(number);
    const auto isRight = [&](bool isThere, const std::string& got) {
      const bool mayGo = std::find(kSome.begin(), kSome.end(), number) != kSome.end();
      EXPECT_TRUE(isThere ? got == wanted : mayGo) << number << ": " << got.size();
    };
    const auto text = [](const auto& blob) {
      return blob ? std::string(reinterpret_cast<const char*>(blob->data()), blob->size()) : "";
    };
    switch (choice % 6) {
      case 0: {
        const auto blob = store.get(hash);
        isRight(blob.has_value(), text(blob));
        break;
      }
      case 1: {
        const std::vector<blobring::Hash> several = {HashOf(0), hash, blobring::Hash()};
        const auto blobs = store.getMany(several);
        EXPECT_EQ(text(blobs[0]), Bytes(0));
        EXPECT_FALSE(blobs[2]);
        isRight(blobs[1].has_value(), text(blobs[1]));
        break;
      }
      case 2: {
        std::string read;
        const auto result = store.read(hash, [&](std::span<const std::byte> piece) {
          read.append(reinterpret_cast<const char*>(piece.data()), piece.size());
          return true;
        });
        isRight(result == Store::Read::Whole, read);
        break;
      }
      case 3: {
        const auto all = store.hashes();
        isRight(std::find(all.begin(), all.end(), hash) != all.end(), wanted);
        const bool fetches = (choice & 8) != 0;  // a thread is told of its own failures
        if (fetches) BCFetch(store.index(), nullptr, nullptr, 0, nullptr);
        if (!fetches) BCGetSize(store.index(), nullptr);
        EXPECT_EQ(store.lastFailure(),
                  fetches ? "BCFetch: hash is null" : "BCGetSize: hash is null");
        break;
      }
      case 4: {
        const BCStatistics statistics = store.stats();
        const bool isClosed = statistics.loaded == 0 && isClosing;
        EXPECT_GE(statistics.blobCount + kSome.size(),
                  isClosed ? 0U : static_cast<unsigned>(known));
        EXPECT_LE(statistics.pendingChanges, 10U);
        break;
      }
      default: {
        std::uint64_t last = 0;
        const auto progress = [&](auto, std::uint64_t done, std::uint64_t total) {
          EXPECT_TRUE(last <= done && done <= total);
          return last = done, true;
        };
        EXPECT_EQ(store.check(progress), Store::Checked::Sound);
      }
    }
    return true;
  } catch (const blobring::Error& e) {
    EXPECT_TRUE(isClosing && e.code() != BLOBRING_ERROR_NONE) << e.what();
    return false;
  }

  Store store;
  std::atomic<int> stored = 0;  // committed blobs
  std::atomic<unsigned> reads = 0, repacks = 0;
  std::atomic<bool> hasPiece = false, isClosing = false;
  bool failsFlush = false;  // the next one
};
thread_local Sharing* Sharing::writer = nullptr;

TEST_F(OnDisk, ManyReadWhatOneChanges) {
  for (const unsigned slots : {1U, 2U, 3U}) {
    const fs::path directory = root / std::to_string(slots);
    fs::create_directory(directory);
    Sharing sharing(directory, slots);
    std::vector<std::thread> readers;
    for (unsigned i = 0; i < 3; ++i) readers.emplace_back([&, i] { sharing.ReadOn(i); });
    std::thread other([&] {
      for (int i = 0; i < 10; ++i) Store(root / "b").put(std::to_string(i));
    });
    Sharing::writer = &sharing;
    sharing.Write();
    Sharing::writer = nullptr;
    for (std::thread& reader : readers) reader.join();
    other.join();
  }
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

extern "C" {
int __real_fdatasync(int file);
int __wrap_fdatasync(int file) {
  if (Sharing::writer != nullptr) Sharing::writer->WaitForReads();
  if (Sharing::writer == nullptr || !Sharing::writer->TakeFailure()) return __real_fdatasync(file);
  errno = EIO;
  return -1;
}
}
