// The platform layer while the kernel's calls fail or do less than asked.
#include <cerrno>

#include "tests/posix/FailingCalls.h"
#include "tests/posix/Support.h"

namespace {

using Calls = std::vector<std::string>;

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
  for (const auto& [error, flushed] : {std::pair(EIO, 0), {EINVAL, 1}}) {  // EINVAL: directories cannot be synced
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
