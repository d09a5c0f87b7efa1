// The simulated disk against states that were worked out by hand.
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>

#include "tests/support/SimCrash.h"
#include "tests/support/SimFiles.h"

namespace sim {
namespace {

std::string Letters(const Bytes& bytes) {
  // Runs, so that sectors stay readable: "a512b3", 0 as '.'.
  std::string text;
  for (std::size_t at = 0; at < bytes.size();) {
    std::size_t end = at;
    while (end < bytes.size() && bytes[end] == bytes[at]) ++end;
    text.push_back(bytes[at] == 0 ? '.' : static_cast<char>(bytes[at]));
    text.append(std::to_string(end - at));
    at = end;
  }
  return text.empty() ? "empty" : text;
}

std::string Describe(const Image& image) {
  std::string text;
  for (std::size_t i = 0; i < image.count; ++i)
    text.append(text.empty() ? "" : " ").append(image.files[i].path).append("=").append(Letters(image.files[i].bytes));
  return text.empty() ? "nothing" : text;
}

std::set<std::string> AllStates(const Disk& disk) {
  CrashStates states;
  states.Assign(disk);
  Choices choices(states.units(), 0);
  Image image;
  std::set<std::string> found;
  for (;;) {
    states.Build(choices, image);
    found.insert(Describe(image));
    std::size_t unit = 0;
    while (unit < choices.size() && ++choices[unit] == states.versions(unit)) choices[unit++] = 0;
    if (unit == choices.size()) return found;
  }
}

// A file /d/f of 1024 letters a, on the medium.
Disk DiskWithFile() {
  Disk disk;
  disk.MakeDirectory("/d");
  Image image;
  image.Add("/d/f").assign(1024, 'a');
  disk.Load(image);
  return disk;
}

void Put(Disk& disk, const char* path, std::uint32_t offset, std::uint32_t size, char letter) {
  const Bytes bytes(size, static_cast<std::uint8_t>(letter));
  disk.Write(disk.Lookup(path), offset, bytes.data(), size);
}

struct Case {
  const char* what;
  std::function<void(Disk&)> change;
  std::set<std::string> states;
};

TEST(SimDisk, LeavesEveryDiskThatAPowerCutCouldAndNoOther) {
  const Case cases[] = {
      {"nothing unflushed", [](Disk&) {}, {"/d/f=a1024"}},
      {"a write over two sectors: each by itself",
       [](Disk& d) { Put(d, "/d/f", 500, 24, 'b'); },
       {"/d/f=a1024", "/d/f=a500b12a512", "/d/f=a512b12a500", "/d/f=a500b24a500"}},
      {"two writes to a sector: in their order",
       [](Disk& d) {
         Put(d, "/d/f", 0, 4, 'b');
         Put(d, "/d/f", 2, 4, 'c');
       },
       {"/d/f=a1024", "/d/f=b4a1020", "/d/f=b2c4a1018"}},
      {"an append: length and bytes by themselves",
       [](Disk& d) { Put(d, "/d/f", 1024, 3, 'b'); },
       {"/d/f=a1024", "/d/f=a1024.3", "/d/f=a1024b3"}},
      {"flushed between two writes",
       [](Disk& d) {
         Put(d, "/d/f", 0, 4, 'b');
         d.Flush(d.Lookup("/d/f"));
         Put(d, "/d/f", 600, 1, 'c');
       },
       {"/d/f=b4a1020", "/d/f=b4a596c1a423"}},
      {"cut short, then longer: what was cut off never comes back whole",
       [](Disk& d) {
         d.Truncate(d.Lookup("/d/f"), 600);
         Put(d, "/d/f", 700, 1, 'b');
       },
       {"/d/f=a1024", "/d/f=a600", "/d/f=a600.424", "/d/f=a701", "/d/f=a600.101", "/d/f=a600.100b1",
        "/d/f=a600.100b1.323"}},
      {"created: there or not", [](Disk& d) { d.Create("/d/g"); }, {"/d/f=a1024", "/d/f=a1024 /d/g=empty"}},
      {"created, its directory synced, its bytes not flushed",
       [](Disk& d) {
         d.Create("/d/g");
         Put(d, "/d/g", 0, 2, 'b');
         d.SyncDirectory("/d");
       },
       {"/d/f=a1024 /d/g=empty", "/d/f=a1024 /d/g=.2", "/d/f=a1024 /d/g=b2"}},
      {"deleted: there or not", [](Disk& d) { d.Remove("/d/f"); }, {"/d/f=a1024", "nothing"}},
      {"deleted and created again: the old file, none, or the new one",
       [](Disk& d) {
         d.Remove("/d/f");
         d.Create("/d/f");
       },
       {"/d/f=a1024", "nothing", "/d/f=empty"}},
      {"renamed over, the directory synced",
       [](Disk& d) {
         Put(d, "/d/f", 0, 1, 'x');
         d.Create("/d/g");
         Put(d, "/d/g", 0, 2, 'b');
         d.Flush(d.Lookup("/d/g"));
         d.Rename("/d/g", "/d/f");
         d.SyncDirectory("/d");
       },
       {"/d/f=b2"}},
      {"a failed flush took the updates along",
       [](Disk& d) {
         Put(d, "/d/f", 0, 4, 'b');
         d.DropUpdates(d.Lookup("/d/f"), true);
       },
       {"/d/f=a1024"}},
  };
  for (const Case& c : cases) {
    Disk disk = DiskWithFile();
    c.change(disk);
    EXPECT_EQ(AllStates(disk), c.states) << c.what;
  }
}

// What the store relies on in the calls themselves.
class SimFilesTest : public testing::Test {
 protected:
  void SetUp() override {
    Files().Reset();
    Files().disk.MakeDirectory("/d");
  }
  static HANDLE Open(const WCHAR* path = u"/d/f") {
    return CreateFileW(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, 0);
  }
  static bool Write(HANDLE file, const std::string& text) {
    DWORD written = 0;
    return WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) != 0;
  }
  static std::string Found() {
    Image image;
    Files().disk.Visible(image);
    return Describe(image);
  }
};

TEST_F(SimFilesTest, OneOpenerAtATime) {
  const HANDLE file = Open();
  EXPECT_EQ(Open(), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
  EXPECT_TRUE(CloseHandle(file));
  EXPECT_FALSE(CloseHandle(file));
  EXPECT_NE(Open(), INVALID_HANDLE_VALUE);
}

TEST_F(SimFilesTest, AKilledProcessLosesNothingAndAPowerCutWhatWasNotFlushed) {
  const HANDLE file = Open();
  ASSERT_TRUE(Write(file, "a"));
  ASSERT_TRUE(FlushFileBuffers(file));  // its first: the name as well
  ASSERT_TRUE(Write(file, "b"));
  Files().Kill();
  EXPECT_FALSE(Write(file, "c"));
  Files().Restart();
  EXPECT_EQ(Found(), "/d/f=a1b1");
  ASSERT_NE(Open(), INVALID_HANDLE_VALUE);  // no lock was left behind
  Files().CutPower();
  EXPECT_EQ(Found(), "/d/f=a1");
}

TEST_F(SimFilesTest, FailsAsPlanned) {
  const struct {
    Fault fault;
    const char* found;
    const char* afterPowerCut;
  } rows[] = {
      {Fault::Error, "/d/f=a2", "/d/f=a2"},
      {Fault::Partial, "/d/f=a2b2", "/d/f=a2"},
      {Fault::DoneButFailed, "/d/f=a2b2", "/d/f=a2b2"},
  };
  for (const auto& row : rows) {
    SetUp();
    const HANDLE file = Open();
    ASSERT_TRUE(Write(file, "aa") && FlushFileBuffers(file) && Write(file, "bb"));
    Files().FailCallOf(Call::FlushFileBuffers, 1, row.fault);
    EXPECT_FALSE(FlushFileBuffers(file));
    EXPECT_FALSE(FlushFileBuffers(file)) << "a later flush of the handle";
    EXPECT_EQ(Found(), row.found);
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_EQ(Found(), row.afterPowerCut) << "for the next opener";
    Files().CutPower();
    EXPECT_EQ(Found(), row.afterPowerCut);
  }
  SetUp();
  const HANDLE file = Open();
  Files().FailCallOf(Call::WriteFile, 2, Fault::DiskFull, true);
  EXPECT_TRUE(Write(file, "aaaa"));
  EXPECT_FALSE(Write(file, "bbbb"));
  EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
  EXPECT_EQ(Found(), "/d/f=a4b2");
  SetFilePointer(file, 0, nullptr, FILE_BEGIN);
  EXPECT_TRUE(Write(file, "cc")) << "a write that does not grow the file";
}

}  // namespace
}  // namespace sim
