// The platform layer while the kernel's calls fail or do less than asked. The
// linker puts the calls below in front of the real ones (ld(1), --wrap).
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "tests/posix/Support.h"

namespace {

using Calls = std::vector<std::string>;

struct {
  int fdatasyncError = 0;  // errno values; 0: the real call
  int fsyncError = 0;
  int renameat2Error = 0;
  bool interrupts = false;             // every other transfer fails with EINTR
  std::size_t maxTransfer = SIZE_MAX;  // bytes at a time
  std::size_t room = SIZE_MAX;         // bytes until a write fails with ENOSPC and a read with EIO
  std::function<void()> beforeRename;  // runs once
  Calls calls;                         // "data <file>", "names <directory>", "drop <file>"
} failing;

int Noted(const char* what, int file, int error, int (*real)(int)) {
  char path[PATH_MAX] = {};
  const std::string link = "/proc/self/fd/" + std::to_string(file);
  EXPECT_GT(readlink(link.c_str(), path, sizeof path - 1), 0);
  failing.calls.push_back(what + std::filesystem::path(path).filename().string());
  errno = error;
  return error == 0 ? real(file) : -1;
}

template <typename Buffer>
ssize_t Transfer(ssize_t (*real)(int, Buffer*, size_t, off_t), int file, Buffer* buffer,
                 size_t size, off_t offset, int roomError) {
  static bool interrupted = false;
  interrupted = failing.interrupts && !interrupted;
  errno = interrupted ? EINTR : roomError;
  if (interrupted || failing.room == 0) return -1;
  const ssize_t done =
      real(file, buffer, std::min({size, failing.room, failing.maxTransfer}), offset);
  if (failing.room != SIZE_MAX) failing.room -= static_cast<size_t>(done);
  return done;
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's own names
extern "C" {
int __real_fdatasync(int file);
int __real_fsync(int file);
ssize_t __real_pread64(int file, void* buffer, size_t size, off_t offset);
ssize_t __real_pwrite64(int file, const void* buffer, size_t size, off_t offset);
int __real_renameat2(int fromDirectory, const char* from, int toDirectory, const char* to,
                     unsigned flags);

int __wrap_fdatasync(int file) {
  return Noted("data ", file, failing.fdatasyncError, __real_fdatasync);
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
int __wrap_renameat2(int fromDirectory, const char* from, int toDirectory, const char* to,
                     unsigned flags) {
  if (const auto hook = std::exchange(failing.beforeRename, nullptr)) hook();
  errno = failing.renameat2Error;
  return errno != 0 ? -1 : __real_renameat2(fromDirectory, from, toDirectory, to, flags);
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

class Faults : public InDirectory {
 protected:
  Faults() {
    failing = {};
    std::filesystem::create_directory("d");
    std::filesystem::create_directory("e");
  }
  ~Faults() override { failing = {}; }

  // What was synced since the last call.
  static Calls Taken() { return std::exchange(failing.calls, {}); }
};

TEST_F(Faults, AFlushThatFailedOnceNeverSucceedsForThatHandle) {
  const HANDLE file = Open("d/a");
  ASSERT_TRUE(Write(file, "data"));
  ASSERT_EQ(FlushFileBuffers(file), 1);
  Taken();
  failing.fdatasyncError = ENOSPC;
  EXPECT_EQ(FlushFileBuffers(file), 0);
  EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
  EXPECT_EQ(Taken(), (Calls{"data a", "drop a"}));

  failing.fdatasyncError = 0;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(FlushFileBuffers(file), 0);
    EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
  }
  EXPECT_EQ(CloseHandle(file), 1);
  const HANDLE again = Open("d/a");
  EXPECT_EQ(FlushFileBuffers(again), 1);
  CloseHandle(again);
}

// Also if the file was there: its creator may have died at once.
TEST_F(Faults, TheFirstFlushMakesTheNameDurableAfterTheData) {
  std::filesystem::create_symlink("../e/target", "d/link");
  Put("e/target", "");
  const struct {
    const char* name;
    DWORD disposition;
    Calls first;
  } rows[] = {{"d/a", CREATE_NEW, {"data a", "names d"}},
              {"d/a", OPEN_ALWAYS, {"data a", "names d"}},
              {"d/a", OPEN_EXISTING, {"data a"}},
              {"d/link", OPEN_ALWAYS, {"data target", "names e"}}};
  for (const auto& [name, disposition, first] : rows) {
    SCOPED_TRACE(std::string(name) + " " + std::to_string(disposition));
    const HANDLE file = Open(name, disposition);
    std::filesystem::current_path("/");  // a relative name must not be looked up again
    EXPECT_EQ(FlushFileBuffers(file), 1);
    EXPECT_EQ(Taken(), first);
    EXPECT_EQ(FlushFileBuffers(file), 1);
    EXPECT_EQ(Taken(), Calls{first.front()});
    CloseHandle(file);
    std::filesystem::current_path(directory);
  }
  for (const auto& [error, flushed] :
       {std::pair(EIO, 0), {EINVAL, 1}}) {  // EINVAL: directories cannot be synced
    failing.fsyncError = error;
    const HANDLE file = Open("d/a");
    EXPECT_EQ(FlushFileBuffers(file), flushed);
    failing.fsyncError = 0;
    EXPECT_EQ(FlushFileBuffers(file), flushed);
    CloseHandle(file);
  }
}

TEST_F(Faults, AChangeOfNamesIsMadeDurableOrTakenBack) {
  Put("d/a", "A");
  EXPECT_TRUE(Move("d/a", "e/b"));
  EXPECT_EQ(Taken(), (Calls{"data a", "names e", "names d"}));
  EXPECT_TRUE(MakeDirectory("d/new/"));
  EXPECT_EQ(Taken(), Calls{"names d"});

  Put("d/c", "C");
  failing.fdatasyncError = EIO;
  EXPECT_FALSE(Move("d/c", "e/b", MOVEFILE_REPLACE_EXISTING));
  EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
  EXPECT_EQ(Contents("e/b"), "A");
  failing.fdatasyncError = 0;
  failing.fsyncError = EIO;
  EXPECT_FALSE(Move("d/c", "e/c") || MakeDirectory("e/new"));
  EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
  EXPECT_EQ(Contents("d/c"), "C");
  EXPECT_FALSE(Exists("e/c") || Exists("e/new"));
  EXPECT_FALSE(Move("d/c", "e/b", MOVEFILE_REPLACE_EXISTING));
  EXPECT_EQ(Contents("e/b"), "C") << "cannot be taken back";
}

// Looking for the target finds none, and there is one by the time of the
// rename: its opener has it alone.
TEST_F(Faults, AMoveTakesNoNameFromAFileThatWasMadeInBetween) {
  Put("a", "A");
  HANDLE made = INVALID_HANDLE_VALUE;
  failing.beforeRename = [&] {
    made = Open("b", CREATE_NEW);
    EXPECT_TRUE(Write(made, "B"));
  };
  EXPECT_FALSE(Move("a", "b", MOVEFILE_REPLACE_EXISTING));
  EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
  EXPECT_EQ(Contents("b"), "B");
  CloseHandle(made);

  failing.renameat2Error = EINVAL;  // a file system that cannot promise to replace nothing
  EXPECT_FALSE(Move("a", "b"));
  EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
  EXPECT_TRUE(Move("a", "c"));
  EXPECT_EQ(Contents("b") + Contents("c"), "BA");
  EXPECT_FALSE(Exists("a"));
}

TEST_F(Faults, TransfersGoOnUntilAllIsDoneAndTellHowFarTheyGot) {
  failing.maxTransfer = 3;
  failing.interrupts = true;
  const HANDLE file = Open("a");
  EXPECT_TRUE(Write(file, "The quick brown fox"));
  SetFilePointer(file, 0, nullptr, FILE_BEGIN);
  EXPECT_EQ(Read(file, 100), "The quick brown fox");

  failing.room = 5;
  DWORD done = 99;
  EXPECT_EQ(WriteFile(file, " jumps over", 11, &done, nullptr), 0);
  EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
  EXPECT_EQ(done, 5U);
  EXPECT_EQ(SetFilePointer(file, -20, nullptr, FILE_CURRENT), 4U);
  failing.room = 5;
  char buffer[10] = {};
  EXPECT_EQ(ReadFile(file, buffer, 9, &done, nullptr), 0);
  EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
  EXPECT_STREQ(buffer, "quick");
  EXPECT_EQ(SetFilePointer(file, 0, nullptr, FILE_CURRENT), 9U);
  CloseHandle(file);
}

}  // namespace
