#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <functional>
#include <set>
#include <thread>
#include <vector>

#include "tests/posix/Support.h"

namespace {

constexpr DWORD kReadWrite = GENERIC_READ | GENERIC_WRITE;

class Files : public InDirectory {
 protected:
  // Everything that needs the file for itself is refused and changes nothing.
  void ExpectHeld(const std::string& name, const std::string& contents) const {
    for (const DWORD disposition : {CREATE_ALWAYS, OPEN_EXISTING, OPEN_ALWAYS, TRUNCATE_EXISTING}) {
      EXPECT_EQ(Open(name, disposition), INVALID_HANDLE_VALUE) << disposition;
      EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION) << disposition;
    }
    EXPECT_EQ(Open(name, OPEN_EXISTING, GENERIC_READ), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);

    Put("other", "other");
    const struct {
      const char* what;
      bool done;
    } changes[] = {{"delete", Delete(name)},
                   {"move", Move(name, "elsewhere")},
                   {"replace by another", Move("other", name, MOVEFILE_REPLACE_EXISTING)},
                   {"replace another", Move(name, "other", MOVEFILE_REPLACE_EXISTING)}};
    for (const auto& [what, done] : changes) EXPECT_FALSE(done) << what;
    EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
    EXPECT_EQ(Contents(name), contents);
    EXPECT_EQ(Contents("other"), "other");
  }
};

// Another process is no different: see tests/posix_store.
TEST_F(Files, AreHeldAgainstOpenersOfTheSameProcess) {
  const HANDLE file = Open("a");
  ASSERT_TRUE(Write(file, "held"));
  ExpectHeld("a", "held");
  std::filesystem::create_hard_link(At("a"), At("link"));
  ExpectHeld("link", "held");
  ASSERT_EQ(CloseHandle(file), 1);
  EXPECT_TRUE(Move("a", "other", MOVEFILE_REPLACE_EXISTING));
  EXPECT_TRUE(Delete("other"));
}

// Names are moved and deleted all the while: an opener that locked a file
// whose name was just taken away would be in the room together with another.
TEST_F(Files, LetOneOpenerInAtATimeWhateverHappensToTheName) {
  std::atomic<int> inside{0};
  std::atomic<int> opened{0};
  std::atomic<int> intrusions{0};
  std::atomic<int> strangeErrors{0};
  std::atomic<bool> stop{false};
  const auto opener = [&] {
    while (!stop) {
      const HANDLE file = Open("a");
      if (file == INVALID_HANDLE_VALUE) {
        if (GetLastError() != ERROR_SHARING_VIOLATION) ++strangeErrors;  // those of other threads
        continue;
      }
      if (++inside != 1) ++intrusions;
      ++opened;
      std::this_thread::yield();
      --inside;
      CloseHandle(file);
    }
  };
  std::thread first(opener);
  std::thread second(opener);
  for (int i = 0; i < 2000 || opened < 2000; ++i) {
    if (i % 2 == 0) {
      Delete("a");
    } else {
      CloseHandle(Open("b"));
      Move("b", "a", MOVEFILE_REPLACE_EXISTING);
    }
  }
  stop = true;
  first.join();
  second.join();
  EXPECT_EQ(intrusions, 0) << "of " << opened;
  EXPECT_EQ(strangeErrors, 0);
}

TEST_F(Files, FollowTheirCreationDisposition) {
  const struct {
    DWORD disposition;
    bool exists;
    DWORD error;
    const char* contents;  // what is read, then
  } rows[] = {
      {CREATE_NEW, false, ERROR_SUCCESS, ""},
      {CREATE_NEW, true, ERROR_FILE_EXISTS, "old"},
      {CREATE_ALWAYS, false, ERROR_SUCCESS, ""},
      {CREATE_ALWAYS, true, ERROR_ALREADY_EXISTS, ""},
      {OPEN_EXISTING, false, ERROR_FILE_NOT_FOUND, ""},
      {OPEN_EXISTING, true, ERROR_SUCCESS, "old"},
      {OPEN_ALWAYS, false, ERROR_SUCCESS, ""},
      {OPEN_ALWAYS, true, ERROR_ALREADY_EXISTS, "old"},
      {TRUNCATE_EXISTING, false, ERROR_FILE_NOT_FOUND, ""},
      {TRUNCATE_EXISTING, true, ERROR_SUCCESS, ""},
      {0, true, ERROR_INVALID_PARAMETER, "old"},
      {6, true, ERROR_INVALID_PARAMETER, "old"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.disposition) + (row.exists ? " there" : " absent"));
    std::filesystem::remove(At("a"));
    if (row.exists) Put("a", "old");
    const HANDLE file = Open("a", row.disposition);
    EXPECT_EQ(GetLastError(), row.error);
    EXPECT_EQ(file == INVALID_HANDLE_VALUE, row.error != ERROR_SUCCESS && row.error != ERROR_ALREADY_EXISTS);
    if (file != INVALID_HANDLE_VALUE) CloseHandle(file);
    EXPECT_EQ(Contents("a"), row.contents);
  }
  EXPECT_EQ(Open("missing/a"), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
}

TEST_F(Files, ArePrivateToTheirOwner) {
  const mode_t old = umask(0);
  CloseHandle(Open("a"));
  umask(old);
  struct stat status {};
  ASSERT_EQ(stat(At("a").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(Files, RefuseWhatIsNoRegularFileWithoutWaitingForIt) {
  ASSERT_EQ(mkfifo(At("fifo").c_str(), 0600), 0);
  std::filesystem::create_directory(At("dir"));
  std::filesystem::create_symlink("fifo", At("link"));
  std::filesystem::create_symlink("/dev/null", At("null"));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  At("socket").copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);

  alarm(20);  // ends a test that blocks
  for (const char* name : {"fifo", "dir", "link", "null", "socket"}) {
    for (const DWORD access : {GENERIC_READ, GENERIC_WRITE, kReadWrite}) {
      EXPECT_EQ(Open(name, OPEN_ALWAYS, access), INVALID_HANDLE_VALUE) << name;
      EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED) << name;
    }
  }
  alarm(0);
  close(listener);

  Put("regular", "text");
  std::filesystem::create_symlink("regular", At("to regular"));
  const HANDLE file = Open("to regular", OPEN_EXISTING);
  EXPECT_EQ(Read(file, 10), "text");
  CloseHandle(file);
}

TEST_F(Files, KeepAPositionForEachHandle) {
  const HANDLE file = Open("a");
  ASSERT_TRUE(Write(file, "0123456789"));
  const struct {
    LONG distance;
    DWORD method;
    DWORD position;
    DWORD error;
  } rows[] = {
      {0, FILE_CURRENT, 10, ERROR_SUCCESS},
      {4, FILE_BEGIN, 4, ERROR_SUCCESS},
      {-1, FILE_CURRENT, 3, ERROR_SUCCESS},
      {-4, FILE_CURRENT, INVALID_SET_FILE_POINTER, ERROR_NEGATIVE_SEEK},
      {0, FILE_CURRENT, 3, ERROR_SUCCESS},  // a failed move moves nothing
      {-3, FILE_END, 7, ERROR_SUCCESS},
      {5, FILE_END, 15, ERROR_SUCCESS},
      {-11, FILE_END, INVALID_SET_FILE_POINTER, ERROR_NEGATIVE_SEEK},
      {0x7FFFFFFF, FILE_BEGIN, 0x7FFFFFFF, ERROR_SUCCESS},
      {static_cast<LONG>(0x80000000), FILE_BEGIN, INVALID_SET_FILE_POINTER, ERROR_NEGATIVE_SEEK},
      {-1, FILE_BEGIN, INVALID_SET_FILE_POINTER, ERROR_NEGATIVE_SEEK},
      {0, 3, INVALID_SET_FILE_POINTER, ERROR_INVALID_PARAMETER},
      {8, FILE_BEGIN, 8, ERROR_SUCCESS},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(SetFilePointer(file, row.distance, nullptr, row.method), row.position) << row.distance;
    EXPECT_EQ(GetLastError(), row.error) << row.distance;
  }
  EXPECT_EQ(Read(file, 4), "89");  // short at the end
  EXPECT_EQ(SetFilePointer(file, 0, nullptr, FILE_CURRENT), 10U);
  EXPECT_EQ(Read(file, 4), "");
  EXPECT_EQ(GetFileSize(file, nullptr), 10U) << "seeking past the end must not lengthen the file";

  SetFilePointer(file, 12, nullptr, FILE_BEGIN);
  ASSERT_TRUE(Write(file, "x"));
  SetFilePointer(file, 8, nullptr, FILE_BEGIN);
  EXPECT_EQ(Read(file, 100), std::string("89\0\0x", 5));
  CloseHandle(file);
}

TEST_F(Files, CountCorrectlyAcrossTwoAndFourGiB) {
  const HANDLE file = Open("sparse");
  const struct {
    LONG low;
    LONG high;
    DWORD sizeLow;
    DWORD sizeHigh;
  } rows[] = {{0x7FFFFFFE, 0, 0x80000002, 0}, {-2, 0, 2, 1}, {5, 2, 9, 2}};
  for (const auto& row : rows) {
    LONG high = row.high;
    ASSERT_EQ(SetFilePointer(file, row.low, &high, FILE_BEGIN), static_cast<DWORD>(row.low));
    EXPECT_EQ(high, row.high);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    ASSERT_TRUE(Write(file, "abcd"));
    DWORD sizeHigh = 99;
    EXPECT_EQ(GetFileSize(file, &sizeHigh), row.sizeLow);
    EXPECT_EQ(sizeHigh, row.sizeHigh);
    high = row.high;
    SetFilePointer(file, row.low, &high, FILE_BEGIN);
    EXPECT_EQ(Read(file, 4), "abcd");
  }
  // Without a high part, a position beyond 32 bits cannot be told.
  EXPECT_EQ(SetFilePointer(file, 0, nullptr, FILE_END), INVALID_SET_FILE_POINTER);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  CloseHandle(file);
}

TEST_F(Files, AllowWhatTheyWereOpenedFor) {
  Put("a", "text");
  DWORD done = 99;
  char byte = 'x';
  HANDLE file = Open("a", OPEN_EXISTING, GENERIC_READ);
  EXPECT_EQ(WriteFile(file, &byte, 1, &done, nullptr), 0);
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
  EXPECT_EQ(done, 0U);
  CloseHandle(file);
  file = Open("a", OPEN_EXISTING, GENERIC_WRITE);
  done = 99;
  EXPECT_EQ(ReadFile(file, &byte, 1, &done, nullptr), 0);
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
  EXPECT_EQ(done, 0U);
  CloseHandle(file);

  EXPECT_EQ(Open("a", TRUNCATE_EXISTING, GENERIC_READ), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(Open("a", OPEN_EXISTING, 0), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(CreateFileW(Wide(At("a")).c_str(), GENERIC_READ, 1, nullptr, OPEN_EXISTING, 0, 0), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_NOT_SUPPORTED);
  EXPECT_EQ(Contents("a"), "text");
}

TEST_F(Files, RefuseHandlesThatAreNotOpen) {
  const HANDLE file = Open("a");
  const HANDLE closed = Open("b");
  ASSERT_EQ(CloseHandle(closed), 1);
  WIN32_FIND_DATAW data{};
  const HANDLE listing = FindFirstFileW(Wide(At("*.*")).c_str(), &data);
  ASSERT_NE(listing, INVALID_HANDLE_VALUE);

  char byte = 0;
  DWORD done = 0;
  const std::function<bool(HANDLE)> fileCalls[] = {
      [&](HANDLE h) { return ReadFile(h, &byte, 1, &done, nullptr) == 0; },
      [&](HANDLE h) { return WriteFile(h, &byte, 1, &done, nullptr) == 0; },
      [&](HANDLE h) { return SetFilePointer(h, 0, nullptr, FILE_BEGIN) == INVALID_SET_FILE_POINTER; },
      [&](HANDLE h) { return GetFileSize(h, nullptr) == INVALID_FILE_SIZE; },
      [&](HANDLE h) { return FlushFileBuffers(h) == 0; },
      [&](HANDLE h) { return CloseHandle(h) == 0; },
  };
  for (const HANDLE handle : {HANDLE{0}, HANDLE{1}, 0xDEADBEEFU, INVALID_HANDLE_VALUE, closed, listing}) {
    for (const auto& fails : fileCalls) {
      EXPECT_TRUE(fails(handle)) << handle;
      EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE) << handle;
    }
  }
  for (const HANDLE handle : {HANDLE{0}, 0xDEADBEEFU, INVALID_HANDLE_VALUE, closed, file}) {
    EXPECT_EQ(FindNextFileW(handle, &data), 0);
    EXPECT_EQ(FindClose(handle), 0);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE) << handle;
  }
  EXPECT_EQ(FindClose(listing), 1);
  EXPECT_EQ(CloseHandle(file), 1);
}

TEST_F(Files, GiveEveryOpenAHandleOfItsOwn) {
  std::set<HANDLE> seen{0, 0xDEADBEEFU, INVALID_HANDLE_VALUE};
  for (int i = 0; i < 1000; ++i) {
    const HANDLE file = Open("a");
    ASSERT_TRUE(seen.insert(file).second) << i;
    ASSERT_EQ(CloseHandle(file), 1);
  }
}

TEST_F(Files, RunOutOfHandlesWithAnErrorAndRecover) {
  const int result = InChild([&] {
    const rlimit limit{40, 40};
    setrlimit(RLIMIT_NOFILE, &limit);
    std::vector<HANDLE> open;
    while (true) {
      const HANDLE file = Open(std::to_string(open.size()) + ".pak");
      if (file == INVALID_HANDLE_VALUE) break;
      open.push_back(file);
    }
    if (GetLastError() != ERROR_TOO_MANY_OPEN_FILES || open.empty()) return 1;
    for (const HANDLE file : open) CloseHandle(file);
    return Open("again") == INVALID_HANDLE_VALUE ? 2 : 0;
  });
  EXPECT_EQ(result, 0);
}

// A limit that the kernel itself enforces: part of the data fits.
TEST_F(Files, TellHowMuchWasWrittenBeforeTheRoomRanOut) {
  const int result = InChild([&] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{10, 10};
    setrlimit(RLIMIT_FSIZE, &limit);
    const HANDLE file = Open("a");
    DWORD done = 99;
    if (WriteFile(file, "0123456789abcdef", 16, &done, nullptr) != 0) return 1;
    if (GetLastError() != ERROR_FILE_TOO_LARGE) return 2;
    if (done != 10) return 3;
    return SetFilePointer(file, 0, nullptr, FILE_CURRENT) == 10 ? 0 : 4;
  });
  EXPECT_EQ(result, 0);
}

TEST_F(Files, StayClearOfTheStandardStreams) {
  const int result = InChild([&] {
    for (int i = 0; i < 3; ++i) close(i);
    const HANDLE file = Open("a");
    if (!Write(file, "mine")) return 1;
    for (int i = 0; i < 3; ++i) {
      if (write(i, "stray", 5) == 5) return 2;
    }
    return 0;
  });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(Contents("a"), "mine");
}

TEST_F(Files, AreNotInheritedOverExec) {
  const HANDLE file = Open("a");
  const int result = InChild([&] {
    execl("/bin/sh", "sh", "-c", ("ls -l /proc/self/fd | grep -q " + directory_).c_str(), nullptr);
    return 99;
  });
  EXPECT_EQ(result, 1) << "0: the new program has the file open";
  CloseHandle(file);
}

}  // namespace
