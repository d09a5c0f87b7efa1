// The stand-in's file calls on a real disk.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <functional>
#include <map>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "tests/posix/Support.h"

namespace {

using namespace std::string_literals;

class Files : public InDirectory {
 protected:
  using Identity = std::tuple<DWORD, DWORD, DWORD>;
  static Identity IdentityOf(const std::string& name) {
    BY_HANDLE_FILE_INFORMATION info{};
    const HANDLE file = Open(name, OPEN_EXISTING, 0);
    EXPECT_TRUE(GetFileInformationByHandle(file, &info) == 1 && CloseHandle(file) == 1) << name;
    return {info.dwVolumeSerialNumber, info.nFileIndexHigh, info.nFileIndexLow};
  }
};

TEST_F(Files, AreHeldByTheirOpenerWhateverTheName) {
  Put("other", "other");
  const HANDLE file = Open("a");
  ASSERT_TRUE(Write(file, "held"));
  std::filesystem::create_hard_link("a", "b");
  const std::pair<const char*, std::function<bool()>> rows[] = {
      {"open", [] { return Opens("b", OPEN_EXISTING); }},
      {"open or create", [] { return Opens("b"); }},
      {"read", [] { return Opens("b", OPEN_EXISTING, GENERIC_READ); }},
      {"delete", [] { return Delete("b"); }},
      {"move", [] { return Move("b", "c"); }},
      {"be replaced", [] { return Move("other", "b", MOVEFILE_REPLACE_EXISTING); }},
      {"replace", [] { return Move("b", "other", MOVEFILE_REPLACE_EXISTING); }},
  };
  for (const auto& [what, done] : rows) {
    EXPECT_FALSE(done()) << what;
    EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION) << what;
    EXPECT_EQ(Contents("b") + Contents("other"), "heldother") << what;
  }
  EXPECT_EQ(IdentityOf("a"), IdentityOf("b"));
  EXPECT_NE(IdentityOf("a"), IdentityOf("other"));
  const HANDLE query = Open("a", OPEN_EXISTING, 0);
  EXPECT_FALSE(Write(query, "x") || GetLastError() != ERROR_ACCESS_DENIED);
  EXPECT_EQ(CloseHandle(query) + CloseHandle(file), 2);
  EXPECT_TRUE(Move("b", "other", MOVEFILE_REPLACE_EXISTING));
}

// Names are moved and deleted all the while: an opener that locked a file
// whose name was just taken away would be in the room together with another.
TEST_F(Files, LetOneOpenerInAtATimeWhateverHappensToTheName) {
  std::atomic<int> inside{0}, opened{0}, intrusions{0}, strangeErrors{0};
  std::atomic<bool> stop{false};
  const auto opener = [&] {
    while (!stop) {
      const HANDLE file = Open("a");
      if (file == INVALID_HANDLE_VALUE) {
        if (GetLastError() != ERROR_SHARING_VIOLATION) ++strangeErrors;
        continue;
      }
      if (++inside != 1) ++intrusions;
      ++opened;
      std::this_thread::yield();
      --inside;
      CloseHandle(file);
    }
  };
  std::thread first(opener), second(opener);
  for (int i = 0; i < 2000 || opened < 2000; ++i) {
    if (i % 2 == 0) {
      Delete("a");
    } else {
      Opens("b");
      Move("b", "a", MOVEFILE_REPLACE_EXISTING);
    }
  }
  stop = true;
  first.join();
  second.join();
  EXPECT_EQ(intrusions + strangeErrors, 0) << "of " << opened;
}

TEST_F(Files, OpenAsTheyMay) {
  Put("old", "old");
  Put("fixed", "");
  chmod("fixed", 0400);
  Put("huge", "");
  ASSERT_EQ(truncate("huge", (off_t{1} << 32) + 5), 0);
  Put("leased", "");
  signal(SIGIO, SIG_IGN);
  const int lease = open("leased", O_RDONLY);
  ASSERT_EQ(fcntl(lease, F_SETLEASE, F_RDLCK), 0);
  ASSERT_EQ(mkfifo("fifo", 0600), 0);
  for (const auto& [link, target] :
       {std::pair("link", "old"), {"null", "/dev/null"}, {"dangling", "nowhere"}})
    std::filesystem::create_symlink(target, link);

  const struct {
    const char* name;
    DWORD disposition, error;
  } rows[] = {{"old", CREATE_NEW, ERROR_FILE_EXISTS},
              {"old", OPEN_EXISTING, ERROR_SUCCESS},
              {"link", OPEN_ALWAYS, ERROR_SUCCESS},
              {"new", OPEN_EXISTING, ERROR_FILE_NOT_FOUND},
              {"new", OPEN_ALWAYS, ERROR_SUCCESS},
              {"new2", CREATE_NEW, ERROR_SUCCESS},
              {"none/a", OPEN_ALWAYS, ERROR_PATH_NOT_FOUND},
              {"dangling", OPEN_ALWAYS, ERROR_FILE_NOT_FOUND},
              {"dangling", CREATE_NEW, ERROR_FILE_EXISTS},
              {"fixed", OPEN_ALWAYS, ERROR_ACCESS_DENIED},
              {"huge", OPEN_ALWAYS, ERROR_FILE_TOO_LARGE},
              {"leased", OPEN_ALWAYS, ERROR_SHARING_VIOLATION},
              {".", OPEN_ALWAYS, ERROR_ACCESS_DENIED},
              {"fifo", OPEN_ALWAYS, ERROR_ACCESS_DENIED},
              {"null", OPEN_EXISTING, ERROR_ACCESS_DENIED}};
  alarm(20);  // ends a test that blocks
  const mode_t mask = umask(0);
  for (const auto& [name, disposition, error] : rows) {
    EXPECT_EQ(Opens(name, disposition), error == ERROR_SUCCESS) << name << " " << disposition;
    EXPECT_EQ(GetLastError(), error) << name << " " << disposition;
  }
  umask(mask);
  alarm(0);
  close(lease);
  EXPECT_EQ(Contents("old"), "old");
  EXPECT_FALSE(Exists("nowhere"));
  EXPECT_EQ(std::filesystem::status("new").permissions(), std::filesystem::perms(0600));
}

TEST_F(Files, KeepAPositionThatEndsThem) {
  const HANDLE file = Open("a");
  ASSERT_TRUE(Write(file, "0123456789"));
  const struct {
    LONG distance;
    DWORD method, position, error;
  } rows[] = {
      {0, FILE_CURRENT, 10, ERROR_SUCCESS},
      {4, FILE_BEGIN, 4, ERROR_SUCCESS},
      {-1, FILE_CURRENT, 3, ERROR_SUCCESS},
      {-4, FILE_CURRENT, INVALID_SET_FILE_POINTER, ERROR_NEGATIVE_SEEK},
      {0x7FFFFFFF, FILE_BEGIN, 0x7FFFFFFF, ERROR_SUCCESS},
      {static_cast<LONG>(0x80000000), FILE_BEGIN, INVALID_SET_FILE_POINTER, ERROR_NEGATIVE_SEEK},
      {8, FILE_BEGIN, 8, ERROR_SUCCESS},
  };
  for (const auto& [distance, method, position, error] : rows) {
    EXPECT_EQ(SetFilePointer(file, distance, nullptr, method), position) << distance;
    EXPECT_EQ(GetLastError(), error) << distance;
  }
  EXPECT_EQ(Read(file, 4) + Read(file, 4), "89") << "short at the end";
  SetFilePointer(file, 12, nullptr, FILE_BEGIN);
  EXPECT_EQ(GetFileSize(file, nullptr), 10U);
  EXPECT_EQ(SetEndOfFile(file), 1);
  EXPECT_EQ(Contents("a"), "0123456789\0\0"s);
  SetFilePointer(file, 3, nullptr, FILE_BEGIN);
  EXPECT_EQ(SetEndOfFile(file), 1);
  EXPECT_EQ(Contents("a"), "012");

  ASSERT_EQ(truncate("a", (off_t{1} << 32) + 5), 0);
  EXPECT_EQ(GetFileSize(file, nullptr), INVALID_FILE_SIZE) << "not taken for 5 bytes";
  CloseHandle(file);
}

TEST_F(Files, RefuseHandlesThatAreNotTheirs) {
  std::set<HANDLE> closed{0, 0xDEADBEEFU, INVALID_HANDLE_VALUE};
  for (int i = 0; i < 5000; ++i) {
    const HANDLE file = Open("a");
    ASSERT_TRUE(closed.insert(file).second && CloseHandle(file) == 1) << "used before";
  }
  Put("a", "text");
  const HANDLE reader = Open("a", OPEN_EXISTING, GENERIC_READ);
  EXPECT_FALSE(Write(reader, "x") || SetEndOfFile(reader) != 0 || FlushFileBuffers(reader) != 0);
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
  EXPECT_EQ(Read(reader, 9), "text");
  WIN32_FIND_DATAW data{};
  const HANDLE listing = FindFirstFileW(u"./*.*", &data);
  closed.insert(listing);
  for (const HANDLE handle : closed) {
    ASSERT_FALSE(Write(handle, "x") || FlushFileBuffers(handle) != 0 || CloseHandle(handle) != 0)
        << handle;
    ASSERT_EQ(GetFileSize(handle, nullptr), INVALID_FILE_SIZE) << handle;
    ASSERT_EQ(GetLastError(), ERROR_INVALID_HANDLE) << handle;
  }
  EXPECT_FALSE(FindNextFileW(reader, &data) != 0 || FindClose(reader) != 0);
  EXPECT_EQ(FindClose(listing) + CloseHandle(reader), 2);
}

TEST_F(Files, HaveTheNamesThatCallersWidened) {
  for (const char16_t* units : {u"caf\xFFC3\xFFA9", u"Caf\x00C3\x00A9"}) {
    const HANDLE file = CreateFileW(units, GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, 0);
    EXPECT_EQ(CloseHandle(file), 1);
  }
  MakeDirectory("d");
  for (const char* name : {"d/fixed", "d/.keep"}) Put(name, "");
  chmod("d/fixed", 0400);
  std::filesystem::create_symlink("../d", "d/link");
  std::filesystem::rename("caf\xC3\xA9", "d/caf\xC3\xA9");
  EXPECT_TRUE(Exists("Caf\xC3\xA9"));

  std::map<std::u16string, DWORD> entries;
  WIN32_FIND_DATAW data{};
  const HANDLE listing = FindFirstFileW(u"d/*.*", &data);
  do entries[data.cFileName] = data.dwFileAttributes;
  while (FindNextFileW(listing, &data) == 1);
  EXPECT_EQ(GetLastError(), ERROR_NO_MORE_FILES);
  EXPECT_EQ(FindClose(listing), 1);
  const std::map<std::u16string, DWORD> expected = {
      {u".", FILE_ATTRIBUTE_DIRECTORY},    {u"..", FILE_ATTRIBUTE_DIRECTORY},
      {u".keep", FILE_ATTRIBUTE_NORMAL},   {u"caf\xFFC3\xFFA9", FILE_ATTRIBUTE_NORMAL},
      {u"fixed", FILE_ATTRIBUTE_READONLY}, {u"link", FILE_ATTRIBUTE_NORMAL}};
  EXPECT_EQ(entries, expected);

  const std::pair<std::u16string, DWORD> bad[] = {
      {u"\x4E2D", ERROR_INVALID_NAME},
      {Wide(std::string(256, 'n')), ERROR_FILENAME_EXCED_RANGE},
      {Wide(std::string(5000, 'n')), ERROR_FILENAME_EXCED_RANGE}};
  for (const auto& [units, error] : bad) {
    EXPECT_EQ(DeleteFileW(units.c_str()), 0);
    EXPECT_EQ(GetLastError(), error);
  }
}

TEST_F(Files, MoveAndGoOnlyWhereTheyMay) {
  const auto move = [](const char* from, const char* to, DWORD flags = 0) {
    return [=] { return Move(from, to, flags); };
  };
  const auto remove = [](const char* name) { return [=] { return Delete(name); }; };
  const auto clear = [](const char* name) {
    return [=] { return SetFileAttributesW(Wide(name).c_str(), FILE_ATTRIBUTE_NORMAL) == 1; };
  };
  const auto drop = [] { return RemoveDirectoryW(u"dir2") == 1; };
  const std::pair<std::function<bool()>, DWORD> rows[] = {
      {move("a", "b"), ERROR_ALREADY_EXISTS},
      {move("a", "dir", MOVEFILE_REPLACE_EXISTING), ERROR_ACCESS_DENIED},
      {move("a", "fixed", MOVEFILE_REPLACE_EXISTING), ERROR_ACCESS_DENIED},
      {move("none", "c"), ERROR_FILE_NOT_FOUND},
      {move("none", "b", MOVEFILE_REPLACE_EXISTING), ERROR_FILE_NOT_FOUND},
      {move("a", "none/c"), ERROR_PATH_NOT_FOUND},
      {move("none/a", "c"), ERROR_PATH_NOT_FOUND},
      {move("a", "c"), ERROR_SUCCESS},
      {move("c", "b", MOVEFILE_REPLACE_EXISTING), ERROR_SUCCESS},
      {move("dir", "dir2"), ERROR_SUCCESS},
      {[] { return MakeDirectory("dir2"); }, ERROR_ALREADY_EXISTS},
      {drop, ERROR_DIR_NOT_EMPTY},
      {remove("dir2"), ERROR_ACCESS_DENIED},
      {remove("fixed"), ERROR_ACCESS_DENIED},
      {clear("fixed"), ERROR_SUCCESS},
      {remove("fixed"), ERROR_SUCCESS},
      {remove("fixed"), ERROR_FILE_NOT_FOUND},
      {clear("link"), ERROR_SUCCESS},
      {remove("link"), ERROR_SUCCESS},  // although what it leads to is held
      {remove("dangling"), ERROR_SUCCESS},
      {remove("dir2/inner"), ERROR_SUCCESS},
      {drop, ERROR_SUCCESS},
  };
  for (const char* name : {"a", "b", "fixed", "held"}) Put(name, name);
  chmod("fixed", 0400);
  std::filesystem::create_directory("dir");
  Put("dir/inner", "");
  std::filesystem::create_symlink("held", "link");
  std::filesystem::create_symlink("nowhere", "dangling");
  const HANDLE held = Open("held");
  for (int row = 0; const auto& [done, error] : rows) {
    EXPECT_EQ(done(), error == ERROR_SUCCESS) << row;
    EXPECT_EQ(GetLastError(), error) << row;
    ++row;
  }
  EXPECT_EQ(Contents("b") + Contents("held"), "aheld");
  EXPECT_EQ(CloseHandle(held), 1);
}

// As a user whom permissions stop: names take rights on the directory alone,
// and one that may not be read is no reason to fail.
TEST_F(Files, NeedNoMorePermissionThanTheChange) {
  for (const char* name : {"writeOnly", "another's"}) Put(name, "");
  chmod("writeOnly", 0200);
  ASSERT_TRUE(geteuid() != 0 || (chown("writeOnly", 65534, 0) == 0 && chown(".", 65534, 0) == 0));
  const int failed = InChild([] {
    if (chmod(".", 0300) != 0 || (geteuid() == 0 && setuid(65534) != 0)) return 1;
    const HANDLE file = Open("new");
    if (!Write(file, "x") || FlushFileBuffers(file) == 0 || CloseHandle(file) == 0) return 2;
    if (!MakeDirectory("made") || !Move("new", "moved")) return 3;
    return Move("writeOnly", "w") && Delete("w") && Move("another's", "c") && Delete("c") ? 0 : 4;
  });
  chmod(".", 0700);
  EXPECT_EQ(failed, 0);
}

TEST_F(Files, KeepToTheLimitsOfTheProcess) {
  const int failed = InChild([] {
    const rlimit size{10, 10};  // without the signal that goes with it
    setrlimit(RLIMIT_FSIZE, &size);
    const HANDLE file = Open("a");
    DWORD done = 0;
    if (WriteFile(file, "0123456789abcdef", 16, &done, nullptr) != 0 || done != 10) return 1;
    if (GetLastError() != ERROR_FILE_TOO_LARGE ||
        SetFilePointer(file, 1, nullptr, FILE_CURRENT) != 11)
      return 2;
    if (SetEndOfFile(file) != 0 || GetLastError() != ERROR_FILE_TOO_LARGE) return 3;

    const rlimit number{40, 40};
    setrlimit(RLIMIT_NOFILE, &number);
    std::vector<HANDLE> open;
    while (open.empty() || open.back() != INVALID_HANDLE_VALUE)
      open.push_back(Open(std::to_string(open.size())));
    if (GetLastError() != ERROR_TOO_MANY_OPEN_FILES || Exists(std::to_string(open.size() - 1)))
      return 4;
    CloseHandle(open.front());
    CloseHandle(open[1]);
    return Opens("again") ? 0 : 5;
  });
  EXPECT_EQ(failed, 0);
}

TEST_F(Files, StayClearOfStandardStreamsAndOtherPrograms) {
  const int failed = InChild([] {
    if (Open("early") == INVALID_HANDLE_VALUE) return 5;
    for (int i = 0; i < 3; ++i) close(i);
    const HANDLE file = Open("a");
    if (!Write(file, "mine")) return 2;
    for (int i = 0; i < 3; ++i) {
      if (write(i, "stray", 5) == 5) return 3;
    }
    execl("/bin/sh", "sh", "-c", "ls -l /proc/self/fd | grep -q blobring", nullptr);
    return 4;
  });
  EXPECT_EQ(failed, 1) << "0: another program has the file open";
  EXPECT_EQ(Contents("a"), "mine");
}

TEST_F(Files, HaveFullPaths) {
  const std::u16string here = Wide(directory);
  const auto length = static_cast<DWORD>(here.size());
  const struct {
    std::u16string path;
    DWORD capacity, result;
    std::u16string full;
  } rows[] = {{u"a/../b", 4096, length + 7, here + u"/a/../b"},
              {u"abc", length + 5, length + 4, here + u"/abc"},
              {u"abc", length + 4, length + 5, u""},  // what it takes, with the NUL
              {u"/x/", 4, 3, u"/x/"},
              {u"", 4096, 0, u""}};
  for (const auto& [path, capacity, result, full] : rows) {
    std::u16string buffer(capacity + 1, u'\0');
    EXPECT_EQ(GetFullPathNameW(path.c_str(), capacity, buffer.data(), nullptr), result);
    EXPECT_TRUE(full == buffer.c_str()) << capacity;
  }
}

}  // namespace
