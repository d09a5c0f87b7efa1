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
    std::filesystem::create_directory(At("d"));
    std::filesystem::create_directory(At("e"));
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

TEST_F(Faults, AFlushThatCannotMakeTheNameDurableFailsForGood) {
  const HANDLE file = Open("d/a");
  failing.fsyncError = EIO;
  EXPECT_EQ(FlushFileBuffers(file), 0);
  EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
  failing.fsyncError = 0;
  EXPECT_EQ(FlushFileBuffers(file), 0);
  CloseHandle(file);

  failing.fsyncError = EINVAL;  // a file system that cannot sync directories
  const HANDLE other = Open("d/b");
  EXPECT_EQ(FlushFileBuffers(other), 1);
  CloseHandle(other);
}

// Also where the file was there: whoever made it may have died at once.
TEST_F(Faults, TheFirstFlushMakesTheNameDurableAfterTheData) {
  std::filesystem::create_symlink("../e/target", At("d/link"));
  const struct {
    const char* name;
    DWORD disposition;
    Calls first;
  } rows[] = {
      {"d/a", CREATE_NEW, {"data a", "names d"}},          {"d/a", OPEN_ALWAYS, {"data a", "names d"}},
      {"d/a", CREATE_ALWAYS, {"data a", "names d"}},       {"d/a", OPEN_EXISTING, {"data a"}},
      {"d/link", OPEN_ALWAYS, {"data target", "names e"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.name) + " " + std::to_string(row.disposition));
    Taken();
    const HANDLE file = Open(row.name, row.disposition);
    ASSERT_NE(file, INVALID_HANDLE_VALUE) << GetLastError();
    std::filesystem::current_path(directory_);  // a relative name must not be looked up again
    EXPECT_EQ(FlushFileBuffers(file), 1);
    EXPECT_EQ(Taken(), row.first);
    EXPECT_EQ(FlushFileBuffers(file), 1);
    EXPECT_EQ(Taken(), Calls{row.first.front()});
    CloseHandle(file);
  }
  std::filesystem::current_path("/");
}

TEST_F(Faults, AMoveMakesTheContentsAndThenBothNamesDurable) {
  Put("d/a", "A");
  EXPECT_TRUE(Move("d/a", "d/b"));
  EXPECT_EQ(Taken(), (Calls{"data a", "names d"}));
  EXPECT_TRUE(Move("d/b", "e/b", MOVEFILE_REPLACE_EXISTING));
  EXPECT_EQ(Taken(), (Calls{"data b", "names e", "names d"}));

  Put("d/c", "C");
  failing.fdatasyncError = EIO;
  EXPECT_FALSE(Move("d/c", "e/b", MOVEFILE_REPLACE_EXISTING));
  EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
  EXPECT_EQ(Contents("e/b"), "A");
  failing.fdatasyncError = 0;
  failing.fsyncError = EIO;
  EXPECT_FALSE(Move("d/c", "e/b", MOVEFILE_REPLACE_EXISTING));
  EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
}

// Looking for the target finds none, and there is one by the time of the
// rename: whoever opened it has it alone.
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
  EXPECT_EQ(CloseHandle(made), 1);
  EXPECT_TRUE(Move("a", "b", MOVEFILE_REPLACE_EXISTING));
  EXPECT_EQ(Contents("b"), "A");
}

TEST_F(Faults, ANewDirectoryIsMadeDurable) {
  EXPECT_EQ(CreateDirectoryW(Wide(At("d/new/")).c_str(), nullptr), 1);
  EXPECT_EQ(Taken(), Calls{"names d"});
}

TEST_F(Faults, AMoveReplacesNothingOnSystemsThatCannotPromiseIt) {
  for (const int error : {ENOSYS, EINVAL}) {
    failing.renameat2Error = error;
    Put("a", "A");
    Put("b", "B");
    EXPECT_FALSE(Move("a", "b"));
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_FALSE(Move("d", "e"));
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_FALSE(Move("none", "c"));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Contents("b"), "B");
    EXPECT_TRUE(Move("a", "c")) << GetLastError();
    EXPECT_EQ(Contents("c"), "A");
    EXPECT_FALSE(std::filesystem::exists(At("a")));
    EXPECT_TRUE(Move("d", "f"));
    EXPECT_TRUE(Move("f", "d"));
    EXPECT_TRUE(Delete("c"));
  }
}

TEST_F(Faults, TransfersGoOnUntilAllIsDone) {
  failing.maxTransfer = 3;
  failing.interrupts = true;
  const HANDLE file = Open("a");
  const std::string text = "The quick brown fox jumps over the lazy dog";
  EXPECT_TRUE(Write(file, text));
  SetFilePointer(file, 0, nullptr, FILE_BEGIN);
  EXPECT_EQ(Read(file, 100), text);
  CloseHandle(file);
  EXPECT_EQ(Contents("a"), text);
}

TEST_F(Faults, TransfersTellHowFarTheyGot) {
  const HANDLE file = Open("a");
  failing.maxTransfer = 4;
  failing.room = 6;
  DWORD done = 99;
  EXPECT_EQ(WriteFile(file, "0123456789", 10, &done, nullptr), 0);
  EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
  EXPECT_EQ(done, 6U);
  EXPECT_EQ(SetFilePointer(file, 0, nullptr, FILE_CURRENT), 6U);

  SetFilePointer(file, 1, nullptr, FILE_BEGIN);
  char buffer[10] = {};
  failing.room = 2;
  EXPECT_EQ(ReadFile(file, buffer, 5, &done, nullptr), 0);
  EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
  EXPECT_EQ(done, 2U);
  EXPECT_STREQ(buffer, "12");
  EXPECT_EQ(SetFilePointer(file, 0, nullptr, FILE_CURRENT), 3U);
  CloseHandle(file);
}

}  // namespace
