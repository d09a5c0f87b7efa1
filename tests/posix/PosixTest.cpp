// Our stand-in for the platform on a real disk, also while the kernel's calls fail or do less than
// asked, and what host.h promises. The linker puts the calls below in front of the kernel's (ld(1),
// --wrap).
#include <blobring/host.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/Diagnostics.h"
#include "platform/MemoryManager.h"
#include "platform/Win32.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using Calls = std::vector<std::string>;

struct {
  int fdatasyncError = 0;  // errno values; 0: the real call
  int fsyncError = 0;
  int renameat2Error = 0;
  bool fragments = false;       // a transfer moves 3 bytes, every other fails with EINTR
  std::size_t room = SIZE_MAX;  // bytes until a transfer fails
  std::function<void()> beforeRename, beforeLock;  // run once
  Calls calls;  // "data <file>", "names <directory>", "drop <file>"
} failing;

int Noted(const char* what, int file, int error, int (*real)(int)) {
  char path[PATH_MAX] = {};
  const std::string link = "/proc/self/fd/" + std::to_string(file);
  EXPECT_GT(readlink(link.c_str(), path, sizeof path - 1), 0);
  failing.calls.push_back(what + fs::path(path).filename().string());
  errno = error;
  return error == 0 ? real(file) : -1;
}

template <typename Buffer>
ssize_t Transfer(ssize_t (*real)(int, Buffer*, size_t, off_t), int file, Buffer* buffer,
                 size_t size, off_t offset, int roomError) {
  static bool interrupted = false;
  interrupted = failing.fragments && !interrupted;
  errno = interrupted ? EINTR : roomError;
  if (interrupted || failing.room == 0) return -1;
  const ssize_t done =
      real(file, buffer, std::min({size, failing.room, failing.fragments ? 3 : SIZE_MAX}), offset);
  if (failing.room != SIZE_MAX) failing.room -= static_cast<size_t>(done);
  return done;
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's own names
extern "C" {
int __real_fdatasync(int file);
int __real_flock(int file, int operation);
int __real_fsync(int file);
ssize_t __real_pread64(int file, void* buffer, size_t size, off_t offset);
ssize_t __real_pwrite64(int file, const void* buffer, size_t size, off_t offset);
int __real_renameat2(int fromAt, const char* from, int toAt, const char* to, unsigned flags);

int __wrap_fdatasync(int file) {
  return Noted("data ", file, failing.fdatasyncError, __real_fdatasync);
}
int __wrap_flock(int file, int operation) {
  if (const auto hook = std::exchange(failing.beforeLock, nullptr)) hook();
  return __real_flock(file, operation);
}
int __wrap_fsync(int file) {
  return Noted("names ", file, failing.fsyncError, __real_fsync);
}
int __wrap_posix_fadvise64(int file, off_t, off_t, int) {
  return Noted("drop ", file, 0, [](int) { return 0; });
}
ssize_t __wrap_pread64(int file, void* buffer, size_t size, off_t offset) {
  return Transfer(__real_pread64, file, buffer, size, offset, EIO);
}
ssize_t __wrap_pwrite64(int file, const void* buffer, size_t size, off_t offset) {
  return Transfer(__real_pwrite64, file, buffer, size, offset, ENOSPC);
}
int __wrap_renameat2(int fromAt, const char* from, int toAt, const char* to, unsigned flags) {
  if (const auto hook = std::exchange(failing.beforeRename, nullptr)) hook();
  errno = failing.renameat2Error;
  return errno != 0 ? -1 : __real_renameat2(fromAt, from, toAt, to, flags);
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

// Runs `body` in a child process; returns what it returns, -1 for a child that did not exit.
template <typename Body>
int InChild(Body body) {
  const pid_t child = fork();
  if (child == 0) _exit(body());
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// In a current directory of the test's own, with the directories d and e.
class Posix : public testing::Test {
 protected:
  Posix() {
    if (mkdtemp(directory.data()) == nullptr) std::abort();
    fs::current_path(directory);
    for (const char* name : {"d", "e"}) fs::create_directory(name);
  }
  ~Posix() override {
    failing = {};
    fs::current_path("/");
    fs::remove_all(directory);
  }

  static std::u16string Wide(const std::string& path) {
    std::u16string wide;
    for (const char c : path) wide.push_back(static_cast<char16_t>(static_cast<signed char>(c)));
    return wide;
  }
  static void Put(const std::string& name, const std::string& data) { std::ofstream(name) << data; }
  static std::string Contents(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  static bool Exists(const std::string& name) { return fs::exists(fs::symlink_status(name)); }
  // What was synced since the last call.
  static Calls Taken() { return std::exchange(failing.calls, {}); }

  static HANDLE Open(const std::string& name, DWORD disposition = OPEN_ALWAYS,
                     DWORD access = GENERIC_READ | GENERIC_WRITE) {
    return CreateFileW(Wide(name).c_str(), access, 0, nullptr, disposition, 0, 0);
  }
  static bool Write(HANDLE file, const std::string& data) {
    DWORD done = 0;
    return WriteFile(file, data.data(), static_cast<DWORD>(data.size()), &done, nullptr) == 1 &&
           done == data.size();
  }
  static std::string Read(HANDLE file, DWORD size) {
    std::string data(size, '\0');
    DWORD done = 0;
    ReadFile(file, data.data(), size, &done, nullptr);
    return data.substr(0, done);
  }
  static DWORD Seek(HANDLE file, LONG distance, DWORD method = FILE_BEGIN) {
    return SetFilePointer(file, distance, nullptr, method);
  }

  // Runs one call on paths, such as "move a b". True, or false and GetLastError().
  static bool Do(const std::string& words) {
    std::istringstream in(words);
    std::string call, name, target;
    in >> call >> name >> target;
    const std::u16string path = Wide(name), to = Wide(target);
    if (call == "move") return MoveFileW(path.c_str(), to.c_str()) == 1;
    if (call == "replace")
      return MoveFileExW(path.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING) == 1;
    if (call == "delete") return DeleteFileW(path.c_str()) == 1;
    if (call == "mkdir") return CreateDirectoryW(path.c_str(), nullptr) == 1;
    if (call == "clear") return SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL) == 1;
    const DWORD disposition = call == "create" ? CREATE_NEW : call == "open" ? OPEN_ALWAYS : 3;
    const HANDLE file =
        Open(name, disposition, call == "read" ? GENERIC_READ : GENERIC_READ | GENERIC_WRITE);
    return file != INVALID_HANDLE_VALUE && CloseHandle(file) == 1;
  }
  struct Row {
    std::string call;
    DWORD error = ERROR_SUCCESS;
  };
  static void Expect(const std::vector<Row>& rows) {
    for (const auto& [call, error] : rows) {
      EXPECT_EQ(Do(call), error == ERROR_SUCCESS) << call;
      EXPECT_EQ(GetLastError(), error) << call;
    }
  }

  std::string directory = testing::TempDir() + "blobring.XXXXXX";
};

TEST_F(Posix, AFileIsHeldByItsOpenerWhateverTheName) {
  Put("other", "other");
  HANDLE file = Open("a");
  ASSERT_TRUE(Write(file, "held"));
  fs::create_hard_link("a", "b");
  for (const char* call : {"open b", "existing b", "read b", "delete b", "move b c",
                           "replace other b", "replace b other"})
    Expect({{call, ERROR_SHARING_VIOLATION}});
  EXPECT_EQ(InChild([] { return Do("open b") ? 1 : 0; }), 0);
  EXPECT_EQ(Contents("b") + Contents("other"), "heldother");
  BY_HANDLE_FILE_INFORMATION held{}, other{};
  const HANDLE query = Open("b", OPEN_EXISTING, 0), stranger = Open("other", OPEN_EXISTING, 0);
  GetFileInformationByHandle(query, &held);
  GetFileInformationByHandle(stranger, &other);
  EXPECT_NE(held.nFileIndexLow, other.nFileIndexLow);
  EXPECT_EQ(CloseHandle(query) + CloseHandle(stranger), 2);

  // Who has both may replace one by the other, and has the name all the time.
  const HANDLE second = Open("other");
  EXPECT_EQ(InChild([] { return Do("replace other b") ? 1 : 0; }), 0);
  Expect({{"replace other b"}, {"open b", ERROR_SHARING_VIOLATION}});
  EXPECT_EQ(Contents("b") + Contents("a"), "otherheld");
  EXPECT_EQ(CloseHandle(second) + CloseHandle(file), 2);
  Put("other", "other");

  // The name is given to another file, or to none, between open and lock.
  for (const auto& change : {+[] { rename("other", "a"); }, +[] { unlink("a"); }}) {
    failing.beforeLock = change;
    file = Open("a");
    EXPECT_TRUE(Write(file, "new"));
    EXPECT_EQ(Contents("a").substr(0, 3), "new");
    CloseHandle(file);
  }
}

TEST_F(Posix, FilesOpenMoveAndGoOnlyWhereTheyMay) {
  for (const char* name : {"a", "b", "fixed", "held", "huge"}) Put(name, name);
  chmod("fixed", 0400);
  ASSERT_EQ(truncate("huge", (off_t{1} << 32) + 5), 0);
  ASSERT_EQ(mkfifo("fifo", 0600), 0);
  fs::create_symlink("held", "link");
  fs::create_symlink("nowhere", "dangling");
  const mode_t mask = umask(0);
  Expect({{"create a", ERROR_FILE_EXISTS},
          {"open link"},
          {"existing new", ERROR_FILE_NOT_FOUND},
          {"open new"},
          {"open none/a", ERROR_PATH_NOT_FOUND},
          {"open dangling", ERROR_FILE_NOT_FOUND},
          {"open fixed", ERROR_ACCESS_DENIED},
          {"open huge", ERROR_FILE_TOO_LARGE},
          {"open fifo", ERROR_ACCESS_DENIED},
          {"open " + std::string(PATH_MAX, 'n'), ERROR_FILENAME_EXCED_RANGE}});
  umask(mask);
  EXPECT_FALSE(Exists("nowhere"));
  EXPECT_EQ(fs::status("new").permissions(), fs::perms(0600));
  const HANDLE held = Open("held");
  Expect({{"move a b", ERROR_ALREADY_EXISTS},
          {"replace a fixed", ERROR_ACCESS_DENIED},
          {"move a none/c", ERROR_PATH_NOT_FOUND},
          {"move a c"},
          {"replace c b"},
          {"delete d", ERROR_ACCESS_DENIED},
          {"delete fixed", ERROR_ACCESS_DENIED},
          {"clear fixed"},
          {"delete fixed"},
          {"delete link"}});  // although what it leads to is held
  EXPECT_EQ(Contents("b") + Contents("held"), "aheld");
  CloseHandle(held);
  for (int i = 0; i < 5000; ++i) {
    const HANDLE other = Open("b");
    EXPECT_NE(other, held) << "a closed handle comes back later";
    CloseHandle(other);
  }
}

TEST_F(Posix, FilesStayOffTheStandardStreamsAndOutOfOtherPrograms) {
  const auto withoutStreams = [] {
    if (Open("early") == INVALID_HANDLE_VALUE) return 5;
    for (int i = 0; i < 3; ++i) close(i);
    if (!Write(Open("m"), "mine")) return 2;
    for (int i = 0; i < 3; ++i)
      if (write(i, "stray", 5) == 5) return 3;
    execl("/bin/sh", "sh", "-c", "for f in /proc/self/fd/*; do [ $f -ef m ] && exit; done; exit 1",
          nullptr);
    return 4;
  };
  EXPECT_EQ(InChild(withoutStreams), 1) << "0: another program has the file open";
  EXPECT_EQ(Contents("m"), "mine");
}

TEST_F(Posix, AFlushThatFailedOnceNeverSucceedsForThatHandle) {
  const HANDLE file = Open("a");
  ASSERT_TRUE(Write(file, "data") && FlushFileBuffers(file) == 1);
  Taken();
  for (const auto& [error, code] : {std::pair(ENOSPC, ERROR_DISK_FULL), {0, ERROR_IO_DEVICE}}) {
    failing.fdatasyncError = error;
    EXPECT_EQ(FlushFileBuffers(file), 0);
    EXPECT_EQ(GetLastError(), code);
  }
  EXPECT_EQ(Taken(), (Calls{"data a", "drop a"}));
  EXPECT_EQ(CloseHandle(file), 1);
  const HANDLE again = Open("a");
  EXPECT_EQ(FlushFileBuffers(again) + CloseHandle(again), 2);
}

// Also if the file was there: its creator may have died at once.
TEST_F(Posix, TheFirstFlushMakesTheNameDurableAfterTheData) {
  fs::create_symlink("../e/target", "d/link");
  Put("e/target", "");
  const std::tuple<const char*, DWORD, Calls> rows[] = {
      {"d/a", CREATE_NEW, {"data a", "names d"}},
      {"d/a", OPEN_ALWAYS, {"data a", "names d"}},
      {"d/a", OPEN_EXISTING, {"data a"}},
      {"d/link", OPEN_ALWAYS, {"data target", "names e"}}};
  for (const auto& [name, disposition, first] : rows) {
    const HANDLE file = Open(name, disposition);
    fs::current_path("/");  // a relative name must not be looked up again
    EXPECT_EQ(FlushFileBuffers(file), 1);
    EXPECT_EQ(Taken(), first) << name;
    EXPECT_EQ(FlushFileBuffers(file) + CloseHandle(file), 2);
    EXPECT_EQ(Taken(), Calls{first.front()}) << name;
    fs::current_path(directory);
  }
  // EINVAL: directories cannot be synced.
  for (const auto& [error, flushed] : {std::pair(EIO, 0), {EINVAL, 1}}) {
    failing.fsyncError = error;
    const HANDLE file = Open("d/a");
    EXPECT_EQ(FlushFileBuffers(file), flushed);
    CloseHandle(file);
  }
}

TEST_F(Posix, AChangeOfNamesIsMadeDurableOrTakenBack) {
  Put("d/a", "A");
  Put("d/c", "C");
  Expect({{"move d/a e/b"}});
  EXPECT_EQ(Taken(), (Calls{"data a", "names e", "names d"}));
  Expect({{"mkdir d/new/"}});
  EXPECT_EQ(Taken(), Calls{"names d"});
  failing.fdatasyncError = EIO;
  Expect({{"replace d/c e/b", ERROR_IO_DEVICE}});
  EXPECT_EQ(Contents("e/b"), "A");
  failing.fdatasyncError = 0;
  failing.fsyncError = EIO;
  Expect({{"move d/c e/c", ERROR_IO_DEVICE}, {"mkdir e/new", ERROR_IO_DEVICE}});
  EXPECT_TRUE(Contents("d/c") == "C" && !Exists("e/c") && !Exists("e/new"));
  Expect({{"replace d/c e/b", ERROR_IO_DEVICE}});
  EXPECT_EQ(Contents("e/b"), "C") << "cannot be taken back";
}

// There is no target when it is looked for, and one by the time of the rename: its opener has it
// alone.
TEST_F(Posix, AMoveTakesNoNameFromAFileThatWasMadeInBetween) {
  Put("a", "A");
  HANDLE made = INVALID_HANDLE_VALUE;
  failing.beforeRename = [&] {
    made = Open("b", CREATE_NEW);
    EXPECT_TRUE(Write(made, "B"));
  };
  Expect({{"replace a b", ERROR_SHARING_VIOLATION}});
  CloseHandle(made);
  failing.renameat2Error = EINVAL;  // a file system that cannot promise to replace nothing
  Expect({{"move a b", ERROR_ALREADY_EXISTS}, {"move a c"}});
  EXPECT_EQ(Contents("b") + Contents("c"), "BA");
  EXPECT_FALSE(Exists("a"));
}

TEST_F(Posix, TransfersGoOnUntilAllIsDoneAndTellHowFarTheyGot) {
  failing.fragments = true;
  const HANDLE file = Open("a");
  EXPECT_TRUE(Write(file, "The quick brown fox"));
  Seek(file, 0);
  EXPECT_EQ(Read(file, 100), "The quick brown fox");
  failing.room = 5;
  EXPECT_FALSE(Write(file, " jumps over"));
  EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
  EXPECT_EQ(Seek(file, -20, FILE_CURRENT), 4U) << "5 bytes were written";
  failing.room = 5;
  EXPECT_EQ(Read(file, 9), "quick");
  EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
  EXPECT_EQ(Seek(file, 0, FILE_CURRENT), 9U);
  CloseHandle(file);
}

TEST(Host, TakesMessagesWholeOrFindsThemOnStandardError) {
  const std::string longText(10000, 'x');
  const auto report = [&] {
    Vell::Common::System::OS::Diagnostics::VellTrace trace("BlobController");
    trace.WriteWarnV("a warning %d ", 5);
    for (int i = 0; i < 2; ++i) trace.WriteErrorV("a sharing violation of %s retry %d", "x", i);
    trace.WriteErrorV("two\nlines of 100%%%s", longText.c_str());
    DeviceFatalError(0x49380D, "File", 20);
  };
  std::string taken;
  const auto sink = [](void* out, int level, const char* source, const char* text) {
    *static_cast<std::string*>(out) += std::to_string(level) + source + ": " + text + "|";
  };
  BlobringHostSetTraceSink(sink, &taken);
  report();
  BlobringHostSetTraceSink(nullptr, nullptr);
  EXPECT_EQ(taken,
            "2BlobController: a warning 5 |"
            "1BlobController: a sharing violation of x retry 0|"
            "1BlobController: a sharing violation of x retry 1|"
            "1BlobController: two\nlines of 100%" +
                longText + "|1Blobring: fatal error 0x49380D at File line 20|");
  testing::internal::CaptureStderr();
  report();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Blobring error: two lines of 100%" + longText +
                "\nBlobring error: fatal error 0x49380D at File line 20\n");
}

// Fork takes place while other threads use what the child needs.
TEST_F(Posix, AForkedChildFindsNoLockAndTakesNoneAway) {
  std::atomic<bool> isOver = false;
  const auto use = [] {
    BlobringHostMemoryUse all;
    BlobringHostMemoryTotal(&all);
    BlobringHostSetRawSink(nullptr, nullptr);
    uint32_t position = 0;
    BlobringHostReadEvents(&position, nullptr, 0, nullptr);
    WIN32_FIND_DATAW entry;
    return FindClose(FindFirstFileW(u"./*.*", &entry)) + CloseHandle(INVALID_HANDLE_VALUE);
  };
  const HANDLE held = Open("a");
  std::thread threads[3];
  for (std::thread& thread : threads)
    thread = std::thread([&] {
      while (!isOver) use();
    });
  for (int i = 0; i < 50; ++i)
    EXPECT_EQ(InChild([&] {
                alarm(20);  // ends one that waits
                const int done = use() + FlushFileBuffers(held) + CloseHandle(held);
                // An error of fdatasync(2) is reported once: to the parent.
                return Taken().empty() ? done : 0;
              }),
              3);
  isOver = true;
  for (std::thread& thread : threads) thread.join();
  Expect({{"open a", ERROR_SHARING_VIOLATION}});
  CloseHandle(held);
}

TEST(Host, ReadsRecordsInOrderAndCountsTheLostOnes) {
  std::thread writers[3];
  for (std::thread& writer : writers)
    writer = std::thread([] {
      for (std::uint32_t i = 0; i < 500'000; ++i) WriteEventToRingBuffer(8, 1, 14, i, 1, 2, i);
    });
  for (std::thread& writer : writers) writer.join();
  std::vector<BlobringHostEvent> events(1500);
  uint32_t position = 0, missed = 0;
  EXPECT_EQ(BlobringHostReadEvents(&position, events.data(), 1500, &missed), 1024U);
  EXPECT_EQ(missed, 1'500'000U - 1024U);
  for (std::uint32_t i = 0; i < 1024; ++i)
    EXPECT_TRUE(events[i].sequence == 1'500'000 - 1024 + i &&
                events[i].values[0] == events[i].values[3]);
}

TEST(Host, CountsMemoryByPoolAndTag) {
  auto& manager = *Vell::Common::System::OS::Memory::TesselMemoryManager::GetInstance(2048);
  const auto take = [&](unsigned long size, unsigned long tag) {
    void* block = &block;
    manager.Alloc(&block, size, 31, Vell::Common::System::OS::Memory::kLifeSpanDefault, tag);
    return block;
  };
  for (const unsigned long size : {ULONG_MAX, ULONG_MAX - 15, ULONG_MAX / 2})
    EXPECT_EQ(take(size, 1), nullptr);
  EXPECT_EQ(manager.Free(take(100, 1)), 0);
  void* block = take(50, 1);
  BlobringHostMemoryUse use[1];
  ASSERT_EQ(BlobringHostMemoryByTag(use, 1), 1U);
  EXPECT_TRUE(use->pool == 31 && use->tag == 1 && use->liveBlocks == 1 && use->liveBytes == 50 &&
              use->peakBytes == 100 && use->allocationCount == 2 && use->failureCount == 3);
  EXPECT_EQ(manager.Free(block), 0);
  BlobringHostMemoryTotal(use);
  EXPECT_EQ(use->liveBlocks + use->liveBytes, 0U);
}

// Each round loads the library, uses it, forks and unloads it. A store that is still open goes with
// it.
TEST_F(Posix, UnloadingGivesEverythingBack) {
  const auto use = [](int row) {
    void* library = dlopen(BLOBRING_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto open = reinterpret_cast<decltype(&BCOpen)>(dlsym(library, "BCOpen"));
    const auto dispose = reinterpret_cast<decltype(&BCDispose)>(dlsym(library, "BCDispose"));
    int store = -1;
    std::thread([&] { store = open(".", nullptr); }).join();
    EXPECT_TRUE(store == 0 && (row % 2 == 0 || dispose(store) == 1));
    EXPECT_EQ(dlclose(library), 0);
    EXPECT_EQ(InChild([] { return 0; }), 0) << "a fork after it";
  };
  const auto files = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
  for (int row = 0; row < 20; ++row) use(row);  // until malloc's caches are full
  const auto filesBefore = files();
  const std::size_t heapBefore = mallinfo2().uordblks;
  for (int row = 0; row < 40; ++row) use(row);
  EXPECT_EQ(files(), filesBefore);
  EXPECT_LT(mallinfo2().uordblks, heapBefore + 1000);  // 25 bytes a round
}

}  // namespace
