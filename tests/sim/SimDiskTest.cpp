// The simulated machine against states that were worked out by hand: it must
// not be kinder than a real disk.
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>

#include "tests/support/SimCrash.h"
#include "tests/support/SimFiles.h"

namespace sim {
namespace {

// "a512b3.9 /d/g=": runs of a letter, zeros as dots; other files with names.
std::string Describe(const Image& image) {
  std::string text;
  for (std::size_t i = 0; i < image.count; ++i) {
    if (image.files[i].path != "/d/f") text += " " + image.files[i].path + "=";
    const Bytes& bytes = image.files[i].bytes;
    for (std::size_t at = 0, end = 0; at < bytes.size(); at = end) {
      while (end < bytes.size() && bytes[end] == bytes[at]) ++end;
      text += (bytes[at] == 0 ? '.' : static_cast<char>(bytes[at])) + std::to_string(end - at);
    }
  }
  return text;
}

std::set<std::string> AllStates(const Disk& disk, const Forger& forger) {
  CrashStates states;
  states.Assign(disk, forger);
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

void Put(Disk& disk, const char* path, std::uint32_t offset, std::uint32_t size, char letter) {
  const Bytes bytes(size, static_cast<std::uint8_t>(letter));
  disk.Write(disk.Lookup(path), offset, bytes.data(), size);
}

TEST(SimDisk, LeavesEveryDiskThatAPowerCutCouldAndNoOther) {
  const Forger forger = [](const Bytes&, std::size_t) { return Bytes(2, 'x'); };
  const struct {
    const char* what;
    std::function<void(Disk&)> change;
    std::set<std::string> states;
    Forger forger = nullptr;
  } rows[] = {
      {"two sectors in one write, one of them written twice",
       [](Disk& d) {
         Put(d, "/d/f", 500, 24, 'b');
         Put(d, "/d/f", 510, 1, 'c');
       },
       {"a1024", "a500b12a512", "a500b10c1b1a512", "a512b12a500", "a500b24a500",
        "a500b10c1b13a500"}},
      {"an append: length and bytes by themselves",
       [](Disk& d) { Put(d, "/d/f", 1024, 3, 'b'); },
       {"a1024", "a1024.3", "a1024b3"}},
      {"an append, and what its space held before",
       [](Disk& d) { Put(d, "/d/f", 1024, 3, 'b'); },
       {"a1024", "a1024.3", "a1024b3", "a1024x2.1"},
       forger},
      {"longer without a write",
       [](Disk& d) { d.Truncate(0, 1026); },
       {"a1024", "a1024.2", "a1024x2"},
       forger},
      {"cut short, then longer: what was cut off may come back",
       [](Disk& d) {
         d.Truncate(0, 600);
         d.Flush(0);
         Put(d, "/d/f", 700, 1, 'b');
       },
       {"a600", "a600.101", "a600.100b1", "a701"},
       [](const Bytes&, std::size_t) { return Bytes(); }},
      {"deleted and created again: the old file, none, or the new one",
       [](Disk& d) {
         d.Remove("/d/f");
         d.Create("/d/f");
       },
       {"a1024", ""}},
      {"renamed over: the names by themselves until the directory is synced",
       [](Disk& d) {
         d.Create("/d/g");
         Put(d, "/d/g", 0, 2, 'b');
         d.Flush(1);
         d.SyncDirectory("/d");
         d.Rename("/d/g", "/d/f");
       },
       {"a1024 /d/g=b2", "a1024", "b2 /d/g=b2", "b2"}},
      {"flushed, then a failed flush that took the updates along",
       [](Disk& d) {
         Put(d, "/d/f", 0, 4, 'b');
         d.Flush(0);
         Put(d, "/d/f", 0, 4, 'c');
         d.DropUpdates(0, true);
       },
       {"b4a1020"}},
  };
  for (const auto& row : rows) {
    Disk disk;
    disk.MakeDirectory("/d");
    Image image;
    image.Add("/d/f").assign(1024, 'a');
    disk.Load(image);
    row.change(disk);
    EXPECT_EQ(AllStates(disk, row.forger), row.states) << row.what;
  }
}

TEST(SimFiles, AKilledProcessLosesNothingAndAPowerCutWhatWasNotFlushed) {
  Files().Reset();
  Files().disk.MakeDirectory("/d");
  const auto open = [](DWORD access = GENERIC_READ | GENERIC_WRITE) {
    return CreateFileW(u"/d/f", access, 0, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, 0);
  };
  const auto found = [] {
    Image image;
    Files().disk.Visible(image);
    return Describe(image);
  };
  const HANDLE file = open();
  DWORD written = 0;
  const auto write = [&](const char* byte) {
    return WriteFile(file, byte, 1, &written, nullptr) != 0;
  };
  EXPECT_TRUE(write("a") && FlushFileBuffers(file) &&
              write("b"));  // the first flush keeps the name as well
  EXPECT_EQ(open(), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
  EXPECT_NE(open(0), INVALID_HANDLE_VALUE);
  EXPECT_FALSE(DeleteFileW(u"/d/f"));
  Files().Kill();
  EXPECT_FALSE(write("c"));
  Files().Restart();
  EXPECT_EQ(found(), "a1b1");
  EXPECT_NE(open(), INVALID_HANDLE_VALUE);
  Files().CutPower();
  EXPECT_EQ(found(), "a1");
}

}  // namespace
}  // namespace sim
