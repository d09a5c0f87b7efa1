#include <fcntl.h>
#include <sys/stat.h>

#include <map>
#include <utility>

#include "tests/posix/Support.h"

namespace {

class FileNames : public InDirectory {
 protected:
  bool CreateAt(const std::u16string& path) const {
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, 0);
    return file != INVALID_HANDLE_VALUE && CloseHandle(file) == 1;
  }

  bool SetAttributes(const std::string& name, DWORD attributes) const {
    return SetFileAttributesW(Wide(At(name)).c_str(), attributes) == 1;
  }

  // Name to attributes.
  std::map<std::u16string, DWORD> List(const std::string& name) const {
    std::map<std::u16string, DWORD> entries;
    WIN32_FIND_DATAW data{};
    const HANDLE listing = FindFirstFileW(Wide(At(name) + "/*.*").c_str(), &data);
    if (listing == INVALID_HANDLE_VALUE) return entries;
    do {
      EXPECT_TRUE(entries.emplace(data.cFileName, data.dwFileAttributes).second);
    } while (FindNextFileW(listing, &data) != 0);
    EXPECT_EQ(GetLastError(), ERROR_NO_MORE_FILES);
    EXPECT_EQ(FindClose(listing), 1);
    return entries;
  }
};

TEST_F(FileNames, AreTheBytesThatCallersWidened) {
  using namespace std::string_literals;
  const std::pair<std::u16string, std::string> rows[] = {
      {u"caf\xFFC3\xFFA9", "caf\xC3\xA9"},  // bytes, sign-extended
      {u"Caf\x00C3\x00A9", "Caf\xC3\xA9"},  // bytes, zero-extended
      {u"\xFF80\xFFFF\x0080\x00FE", "\x80\xFF\x80\xFE"},
      {u"\x0100\x07FF\x0800\x4E2D\xFF7F", "\xC4\x80\xDF\xBF\xE0\xA0\x80\xE4\xB8\xAD\xEF\xBD\xBF"},
      {u"\xD83D\xDE00\xDBFF\xDFFD", "\xF0\x9F\x98\x80\xF4\x8F\xBF\xBD"},  // U+1F600, U+10FFFD
  };
  for (const auto& [units, bytes] : rows) {
    EXPECT_TRUE(CreateAt(Wide(At("")) + units)) << bytes;
    EXPECT_EQ(access(At(bytes).c_str(), F_OK), 0) << bytes;
  }
  for (const std::u16string& units : {u"a\xD83D"s, u"a\xDE00"s, u"\xD83Dz"s, u"\xDE00\xD83D"s}) {
    EXPECT_FALSE(CreateAt(Wide(At("")) + units));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_NAME);
  }
  for (const std::size_t length : {256U, 5000U}) {  // too long for a name, for a path
    EXPECT_FALSE(CreateAt(Wide(At(std::string(length, 'n')))));
    EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);
  }
  EXPECT_EQ(DeleteFileW(nullptr), 0);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST_F(FileNames, AreListedWithTheirAttributes) {
  EXPECT_EQ(CreateDirectoryW(Wide(At("d")).c_str(), nullptr), 1);
  Put("d/0.pak", "12345");
  Put("d/caf\xC3\xA9", "");
  Put("d/.keep", "");
  const std::string longest(255, 'n');  // that the kernel allows
  Put("d/" + longest, "");
  Put("d/fixed", "");
  EXPECT_EQ(CreateDirectoryW(Wide(At("d/sub")).c_str(), nullptr), 1);
  std::filesystem::create_symlink("sub", At("d/link"));
  std::filesystem::create_symlink("nowhere", At("d/dangling"));
  ASSERT_TRUE(SetAttributes("d/fixed", FILE_ATTRIBUTE_READONLY));

  const std::map<std::u16string, DWORD> expected = {
      {u".", FILE_ATTRIBUTE_DIRECTORY},     {u"..", FILE_ATTRIBUTE_DIRECTORY},
      {u"0.pak", FILE_ATTRIBUTE_NORMAL},    {u".keep", FILE_ATTRIBUTE_NORMAL},
      {u"sub", FILE_ATTRIBUTE_DIRECTORY},   {u"caf\xFFC3\xFFA9", FILE_ATTRIBUTE_NORMAL},
      {u"fixed", FILE_ATTRIBUTE_READONLY},  {u"link", FILE_ATTRIBUTE_NORMAL},
      {u"dangling", FILE_ATTRIBUTE_NORMAL}, {Wide(longest), FILE_ATTRIBUTE_NORMAL}};
  EXPECT_EQ(List("d"), expected);
  WIN32_FIND_DATAW root{};
  const HANDLE listing = FindFirstFileW(u"/*.*", &root);
  EXPECT_EQ(FindClose(listing), 1);

  const struct {
    const char* pattern;
    DWORD error;
  } failing[] = {{"none/*.*", ERROR_PATH_NOT_FOUND},
                 {"d/0.pak/*.*", ERROR_PATH_NOT_FOUND},
                 {"d", ERROR_NOT_SUPPORTED},
                 {"d/*.pak", ERROR_NOT_SUPPORTED}};
  for (const auto& [pattern, error] : failing) {
    WIN32_FIND_DATAW data{};
    EXPECT_EQ(FindFirstFileW(Wide(At(pattern)).c_str(), &data), INVALID_HANDLE_VALUE) << pattern;
    EXPECT_EQ(GetLastError(), error) << pattern;
  }
}

// What a listing makes of links decides what deleting a tree deletes.
TEST_F(FileNames, OfLinksLeadToNothingThatIsDeleted) {
  std::filesystem::create_directory(At("outside"));
  Put("outside/precious", "kept");
  std::filesystem::create_symlink("outside", At("link"));
  std::filesystem::create_symlink("nowhere", At("dangling"));
  for (const char* name : {"link", "dangling"}) {
    EXPECT_TRUE(SetAttributes(name, FILE_ATTRIBUTE_NORMAL)) << name;
    EXPECT_TRUE(Delete(name)) << name << " " << GetLastError();
    EXPECT_FALSE(std::filesystem::is_symlink(At(name)));
  }
  EXPECT_EQ(Contents("outside/precious"), "kept");
}

TEST_F(FileNames, MoveOnlyWhereTheyMay) {
  const struct {
    const char* from;
    const char* to;
    DWORD flags;
    DWORD error;
  } rows[] = {
      {"a", "b", 0, ERROR_ALREADY_EXISTS},
      {"a", "dir", MOVEFILE_REPLACE_EXISTING, ERROR_ACCESS_DENIED},
      {"dir", "empty", MOVEFILE_REPLACE_EXISTING, ERROR_ACCESS_DENIED},
      {"a", "fixed", MOVEFILE_REPLACE_EXISTING, ERROR_ACCESS_DENIED},
      {"none", "c", 0, ERROR_FILE_NOT_FOUND},
      {"none", "b", MOVEFILE_REPLACE_EXISTING, ERROR_FILE_NOT_FOUND},
      {"a", "none/c", 0, ERROR_PATH_NOT_FOUND},
      {"none/a", "c", 0, ERROR_PATH_NOT_FOUND},
      {"a", "b", 2, ERROR_NOT_SUPPORTED},
      {"a", "c", 0, ERROR_SUCCESS},
      {"c", "b", MOVEFILE_REPLACE_EXISTING, ERROR_SUCCESS},
      {"dir", "dir2", 0, ERROR_SUCCESS},
  };
  Put("a", "A");
  Put("b", "B");
  Put("fixed", "F");
  ASSERT_TRUE(SetAttributes("fixed", FILE_ATTRIBUTE_READONLY));
  std::filesystem::create_directory(At("dir"));
  std::filesystem::create_directory(At("empty"));
  for (const auto& row : rows) {
    EXPECT_EQ(Move(row.from, row.to, row.flags), row.error == ERROR_SUCCESS) << row.from << " " << row.to;
    EXPECT_EQ(GetLastError(), row.error) << row.from << " " << row.to;
    EXPECT_EQ(Contents("fixed"), "F");
  }
  EXPECT_EQ(Contents("b"), "A");
  EXPECT_FALSE(std::filesystem::exists(At("a")) || std::filesystem::exists(At("c")));
  EXPECT_TRUE(std::filesystem::is_directory(At("dir2")));
}

TEST_F(FileNames, GoOnlyWhenTheyMay) {
  Put("a", "A");
  std::filesystem::create_directory(At("dir"));
  Put("dir/inner", "");
  EXPECT_TRUE(SetAttributes("a", FILE_ATTRIBUTE_READONLY));
  EXPECT_FALSE(Delete("a"));
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
  EXPECT_EQ(Open("a", OPEN_EXISTING), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
  EXPECT_TRUE(SetAttributes("a", FILE_ATTRIBUTE_NORMAL));
  EXPECT_TRUE(Delete("a"));
  EXPECT_FALSE(Delete("a"));
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
  EXPECT_FALSE(SetAttributes("a", FILE_ATTRIBUTE_NORMAL));
  EXPECT_FALSE(Delete("dir"));
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);

  const std::u16string dir = Wide(At("dir"));
  EXPECT_EQ(RemoveDirectoryW(dir.c_str()), 0);
  EXPECT_EQ(GetLastError(), ERROR_DIR_NOT_EMPTY);
  EXPECT_EQ(CreateDirectoryW(dir.c_str(), nullptr), 0);
  EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
  EXPECT_TRUE(Delete("dir/inner"));
  EXPECT_EQ(RemoveDirectoryW(dir.c_str()), 1);
  EXPECT_EQ(RemoveDirectoryW(dir.c_str()), 0);
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
}

}  // namespace
