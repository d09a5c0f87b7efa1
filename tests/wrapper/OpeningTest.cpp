// What BCOpen refuses, what it opens, and that a refusal touches nothing.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <functional>

#include "tests/support/OpenedStore.h"

namespace test {
namespace {

constexpr const char* kConf = "/s/blobring.conf";

BCOptions Options(std::uint32_t slots = 0) {
  BCOptions options{};
  options.size = sizeof options;
  options.slotCount = slots;
  return options;
}

std::string LastError() {
  char text[1024];
  BCLastError(-1, text, sizeof text);
  return text;
}

// A store in /s that has been used: every slot has its files, and the current
// pack and journal are of this generation.
void MakeStore(int slots, int generation = 0, const char16_t* packDir = u"/s") {
  const int index = BCInitialize(u"/s");
  for (int slot = 0; slot < slots; ++slot) BCAddPackDir(index, packDir);
  BCLoad(index);
  for (int repack = 0; repack < generation; ++repack) BCRepack(index);
  const long long id = 1;
  HashBytes hash;
  BCPut(index, hash.data(), 0, hash.data());
  BCEndTransaction(index, &id);
  BCDispose(index);
}

void Remove(const std::string& path) {
  sim::Files().disk.Remove(path);
  sim::Files().disk.SyncDirectory(sim::DirectoryOf(path));
}

sim::Image Disk() {
  sim::Image image;
  sim::Files().disk.Visible(image);
  return image;
}

bool IsSame(const sim::Image& a, const sim::Image& b) {
  return a.count == b.count &&
         std::equal(a.files.begin(), a.files.begin() + static_cast<std::ptrdiff_t>(a.count),
                    b.files.begin(), [](const sim::ImageFile& x, const sim::ImageFile& y) {
                      return x.path == y.path && x.bytes == y.bytes;
                    });
}

TEST(Opening, RefusesBeforeItTouchesAFile) {
  static const char* const kPacksInB[] = {"/b", "/b"};
  static const char* const kNull[] = {nullptr};
  const BCOptions defaults = Options();
  BCOptions small = defaults, noCount = defaults, nullDir = Options(1), inB = Options(2),
            mustExist = defaults, readOnly = defaults;
  small.size = offsetof(BCOptions, mustExist) - 1;
  noCount.packDirs = nullDir.packDirs = kNull;
  inB.packDirs = kPacksInB;
  mustExist.mustExist = readOnly.readOnly = 1;
  const std::string fresh("\0\4\0\0\0\0\0\0\0\0\0\0\0\0\0\0\1\0\0\0\30\0\0\0", 24);
  const auto none = [] {};
  const auto store = [](int slots, int generation) {
    return [=] { MakeStore(slots, generation); };
  };
  const auto file = [](const char* path, std::string bytes) {
    return [=] { SetFile(path, bytes); };
  };
  const auto conf = [](const char* text) { return [=] { MakeStore(2), SetFile(kConf, text); }; };
  const struct {
    const char* name;
    std::function<void()> prepare;
    const BCOptions options;
    int code;
    const char* text;
  } rows[] = {
      {"small options", none, small, BLOBRING_ERROR_ARGUMENT, "BCOpen: options->size = "},
      {"no count", none, noCount, BLOBRING_ERROR_ARGUMENT, "BCOpen: packDirs needs slotCount"},
      {"null pack directory", none, nullDir, BLOBRING_ERROR_ARGUMENT, "BCOpen: packDirs is null"},
      {"too many slots", none, Options(1001), BLOBRING_ERROR_ARGUMENT, "BCOpen: slotCount = 1001"},
      {"no store to exist", none, mustExist, BLOBRING_ERROR_NO_STORE,
       "BCOpen: there is no store in /s"},
      {"no store to read", none, readOnly, BLOBRING_ERROR_NO_STORE,
       "BCOpen: there is no store in /s"},
      {"more slots on disk", store(3, 0), defaults, BLOBRING_ERROR_ARGUMENT,
       "BCOpen: /s/2.jrn belongs"},
      {"fewer slots on disk", store(1, 0), defaults, BLOBRING_ERROR_REFUSED,
       "BCOpen: /s/1.pak is missing"},
      {"generation elsewhere",
       [=] { MakeStore(1, 3), SetFile("/s/1.pak", ""), SetFile("/s/1.jrn", fresh); }, defaults,
       BLOBRING_ERROR_ARGUMENT, "BCOpen: /s/0.pak has generation 3"},
      {"packs elsewhere", [] { MakeStore(2, 0, u"/a"); }, defaults, BLOBRING_ERROR_REFUSED,
       "/s/0.pak is missing"},
      {"packs elsewhere, unused",
       [] { BCDispose(BCOpen("/s", nullptr)), Remove("/s/0.pak"), Remove("/s/1.pak"); }, defaults,
       BLOBRING_ERROR_REFUSED, "/s/0.pak is missing"},
      {"newest pack gone",
       [] { MakeStore(2, 1), Remove("/s/1.pak"), SetFile("/s/1.pak.kept-1", ""); }, defaults,
       BLOBRING_ERROR_REFUSED, "/s/1.pak is missing"},
      {"newest pack emptied", [] { MakeStore(2, 1), SetFile("/s/1.pak", ""); }, defaults,
       BLOBRING_ERROR_DAMAGED,
       "BCOpen: /s/1.jrn has generation 1, but the newest pack, /s/0.pak, has 0"},
      {"journal gone", [] { MakeStore(2), Remove("/s/0.jrn"); }, defaults, BLOBRING_ERROR_REFUSED,
       "/s/0.jrn is missing"},
      {"short foreign file", file("/s/0.pak", "hello"), defaults, BLOBRING_ERROR_REFUSED,
       "/s/0.pak is not a file of"},
      {"foreign version", file("/s/1.jrn", fresh.substr(0, 16) + "\2" + fresh.substr(17)), defaults,
       BLOBRING_ERROR_REFUSED, "/s/1.jrn is not a file of"},
      {"foreign mode", file("/s/0.jrn", fresh.substr(0, 8) + "\2" + fresh.substr(9)), defaults,
       BLOBRING_ERROR_REFUSED, "/s/0.jrn is not a file of"},
      {"zeros for a header", file("/s/0.pak", std::string(25, '\0')), defaults,
       BLOBRING_ERROR_REFUSED, "/s/0.pak is not a file of"},
      {"conf: other count", conf("blobring 1\nslot .\nslot .\n"), Options(3),
       BLOBRING_ERROR_ARGUMENT, "/s/blobring.conf names 2 slots, not 3"},
      {"conf: other directory", conf("blobring 1\nslot /b/\nslot .\n"), inB,
       BLOBRING_ERROR_ARGUMENT, "/s/blobring.conf has the pack of slot 1 in /s, not in /b"},
      {"conf: missing pack", conf("blobring 1\nslot .\nslot /b\n"), defaults,
       BLOBRING_ERROR_REFUSED, "/b/1.pak is missing"},
      {"conf: other first line", conf("# \n\nblobring 2\n"), defaults, BLOBRING_ERROR_DAMAGED,
       "/s/blobring.conf line 3: wanted \"blobring 1\", found \"blobring 2\""},
      {"conf: relative directory", conf("blobring 1\nslot a"), defaults, BLOBRING_ERROR_DAMAGED,
       "conf line 2: wanted"},
      {"conf: no slot", conf("blobring 1\n"), defaults, BLOBRING_ERROR_DAMAGED,
       "/s/blobring.conf names no slot"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FreshMachine();
    row.prepare();
    const sim::Image before = Disk();
    EXPECT_EQ(BCOpen("/s", &row.options), -1);
    EXPECT_EQ(BCLastErrorCode(-1), row.code);
    EXPECT_NE(LastError().find(row.text), std::string::npos) << LastError();
    EXPECT_TRUE(IsSame(Disk(), before));
    EXPECT_EQ(sim::Files().openHandles(), 0U);
  }
}

TEST(Opening, OpensWhatTheFilesAgreeWith) {
  BCOptions first = Options(2);
  first.size = offsetof(BCOptions, mustExist);
  first.mustExist = first.readOnly = 1;  // beyond what the first version had
  BCOptions readOnly = Options();
  readOnly.readOnly = 1;
  BCOptions erase = Options();
  erase.eraseDamaged = 1;
  const struct {
    const char* name;
    std::function<void()> prepare;
    const BCOptions options;
    std::uint32_t slots;
    std::uint64_t blobs;
  } rows[] = {
      {"new", [] {}, Options(), 2, 0},
      {"first version of the options", [] {}, first, 2, 0},
      {"cut off while it was made", [] { SetFile("/s/0.pak", std::string("\0\4\0\0", 4)); },
       Options(), 2, 0},
      {"three slots by name", [] { MakeStore(3, 2); }, Options(3), 3, 1},
      {"slots of the conf",
       [] { MakeStore(3, 2, u"/a"), SetFile(kConf, "#\nblobring 1\n\nslot /a\nslot /a\nslot /a"); },
       Options(), 3, 1},
      {"read-only", [] { MakeStore(2, 1); }, readOnly, 2, 1},
      {"newest pack emptied, erasing", [] { MakeStore(2, 1), SetFile("/s/1.pak", ""); }, erase, 2,
       0},
      {"journals moved aside",
       [] { MakeStore(1), Remove("/s/0.jrn"), SetFile("/s/0.jrn.kept-1", ""); }, Options(1), 1, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FreshMachine();
    row.prepare();
    const int index = BCOpen("/s", &row.options);
    ASSERT_GE(index, 0) << LastError();
    BCStatistics statistics{};
    statistics.size = sizeof statistics;
    EXPECT_EQ(BCGetStatistics(index, &statistics), 1);
    EXPECT_EQ(statistics.slotCount, row.slots);
    EXPECT_EQ(statistics.blobCount, row.blobs);
    EXPECT_EQ(statistics.readOnly != 0,
              row.options.readOnly != 0 && row.options.size == sizeof(BCOptions));
    BCDispose(index);
  }
}

// The library cannot know why; nothing stays open, and the store opens later.
TEST(Opening, TellsWhatTheSystemRefused) {
  const struct {
    const char* directory;
    void (*fail)();
    int code;
    const char* text;
  } rows[] = {
      {nullptr, [] {}, BLOBRING_ERROR_ARGUMENT, "BCOpen: directory is null"},
      {"/nowhere", [] {}, BLOBRING_ERROR_IO,
       "FileSystem::CreateFile error /nowhere/0.pak GetLastError code= 3"},
      {"/s", [] { sim::Memory().RefuseAlloc(1); }, BLOBRING_ERROR_MEMORY,
       "BCOpen threw an exception:Unable to alloc"},
      {"/s", [] { sim::Files().FailCallOf(sim::Call::CreateFile, 1, sim::Fault::Busy, true); },
       BLOBRING_ERROR_HELD, "FileSystem::CreateFile error /s/blobring.conf GetLastError code= 32"},
      {"/s", [] { sim::Files().FailCallOf(sim::Call::WriteFile, 1, sim::Fault::DiskFull, true); },
       BLOBRING_ERROR_FULL,
       "BCOpen threw an exception:File::Write didn't write the entire buffer 24 written 12 "
       "GetLastError 112"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    FreshMachine();
    row.fail();
    EXPECT_EQ(BCOpen(row.directory, nullptr), -1);
    EXPECT_EQ(BCLastErrorCode(-1), row.code);
    EXPECT_EQ(LastError().find(row.text), 0U) << LastError();
    sim::Files().Heal();
    sim::Memory().RefuseAlloc(0);
    const int index = BCOpen("/s", nullptr);
    EXPECT_GE(index, 0) << LastError();
    BCDispose(index);
  }
}

}  // namespace
}  // namespace test
