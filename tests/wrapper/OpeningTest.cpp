// What opening refuses, what it opens, and that a refusal touches nothing.
#include <blobring/Store.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "tests/support/JournalBytes.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using blobring::Options;
using blobring::Store;

// Does what the words say:
//   "3"         a store of three slots in /s, never used
//   "3+2"       one that was repacked twice, then used; "3+2@": with its packs in /a
//   "-1.pak"    a file of /s that goes
//   "1.pak=XY"  one with these contents, where | ends a line and _ is a space
//   "!busy"     a call that fails from now on
void Prepare(const std::string& words) {
  std::istringstream in(words);
  for (std::string word; in >> word;) {
    const std::size_t equals = word.find('='), plus = word.find('+');
    if (word == "!busy") {
      sim::Files().FailCallOf(sim::Call::CreateFile, 1, sim::Fault::Busy, true);
    } else if (word == "!full") {
      sim::Files().FailCallOf(sim::Call::WriteFile, 1, sim::Fault::DiskFull, true);
    } else if (word == "!memory") {
      sim::Memory().RefuseAlloc(1);
    } else if (word[0] == '-') {
      sim::Files().disk.Remove("/s/" + word.substr(1));
      sim::Files().disk.SyncDirectory("/s");
    } else if (equals != std::string::npos) {
      std::string contents = word.substr(equals + 1);
      std::replace(contents.begin(), contents.end(), '|', '\n');
      std::replace(contents.begin(), contents.end(), '_', ' ');
      SetFile("/s/" + word.substr(0, equals), contents);
    } else {
      Options options{.slots = static_cast<unsigned>(word[0] - '0')};
      if (word.back() == '@') options.packDirectories.assign(options.slots, "/a");
      Store store("/s", options);
      for (int n = 0; plus == 1 && n < word[2] - '0'; ++n) store.repack();
      if (plus == 1) store.put("blob");
    }
  }
}

std::string Disk() {
  std::string all;
  for (const auto& [path, bytes] : sim::Files().disk.Visible()) all += path + bytes;
  return all;
}

int codeOf;  // of the last Opened

std::string Opened(const Options& options) {
  codeOf = BLOBRING_ERROR_NONE;
  try {
    const BCStatistics of = Store("/s", options).stats();
    return std::to_string(of.slotCount) + " slots, " + std::to_string(of.blobCount) + " blobs" +
           (of.readOnly != 0 ? ", read-only" : "");
  } catch (const blobring::Error& e) {
    codeOf = e.code();
    return e.what();
  }
}

TEST(Opening, RefusesBeforeItTouchesAFileOrOpensWhatTheFilesAgreeWith) {
  const std::string fresh = JournalBytes().Bytes();
  const struct {
    std::string disk;
    Options options;
    int code;
    const char* text;
  } rows[] = {
      {"", {.slots = 1001}, BLOBRING_ERROR_ARGUMENT, "BCOpen: slotCount = 1001"},
      {"", {.mustExist = true}, BLOBRING_ERROR_NO_STORE, "BCOpen: there is no store in /s"},
      {"", {.readOnly = true}, BLOBRING_ERROR_NO_STORE, "BCOpen: there is no store in /s"},
      {"3", {}, BLOBRING_ERROR_ARGUMENT, "BCOpen: /s/2.jrn belongs"},
      {"1+0", {}, BLOBRING_ERROR_REFUSED, "BCOpen: /s/1.pak is missing"},
      {"1+3 1.pak= 1.jrn=", {}, BLOBRING_ERROR_ARGUMENT, "BCOpen: /s/0.pak has generation 3"},
      {"2+0@", {}, BLOBRING_ERROR_REFUSED, "/s/0.pak is missing"},
      {"2 -0.pak -1.pak", {}, BLOBRING_ERROR_REFUSED, "/s/0.pak is missing"},
      {"2+1 -1.pak 1.pak.kept-1=", {}, BLOBRING_ERROR_REFUSED, "/s/1.pak is missing"},
      {"2+1 1.pak=",
       {},
       BLOBRING_ERROR_DAMAGED,
       "BCOpen: /s/1.jrn has generation 1, but the newest pack, /s/0.pak, has 0"},
      {"2+0 -0.jrn", {}, BLOBRING_ERROR_REFUSED, "/s/0.jrn is missing"},
      {"0.pak=hello", {}, BLOBRING_ERROR_REFUSED, "/s/0.pak is not a file of"},
      {"1.jrn=" + With(fresh, 16, "\2"), {}, BLOBRING_ERROR_REFUSED, "/s/1.jrn is not a file of"},
      {"0.jrn=" + With(fresh, 8, "\2"), {}, BLOBRING_ERROR_REFUSED, "/s/0.jrn is not a file of"},
      {"0.pak=" + std::string(25, '\0'), {}, BLOBRING_ERROR_REFUSED, "/s/0.pak is not a file of"},
      {"2+0 blobring.conf=blobring_1|slot_.|slot_.|",
       {.slots = 3},
       BLOBRING_ERROR_ARGUMENT,
       "/s/blobring.conf names 2 slots, not 3"},
      {"2+0 blobring.conf=blobring_1|slot_/b/|slot_.|",
       {.packDirectories = {"/b", "/b"}},
       BLOBRING_ERROR_ARGUMENT,
       "/s/blobring.conf has the pack of slot 1 in /s, not in /b"},
      {"2+0 blobring.conf=blobring_1|slot_.|slot_/b|",
       {},
       BLOBRING_ERROR_REFUSED,
       "/b/1.pak is missing"},
      {"2+0 blobring.conf=#_||blobring_2|",
       {},
       BLOBRING_ERROR_DAMAGED,
       "/s/blobring.conf line 3: wanted \"blobring 1\", found \"blobring 2\""},
      {"2+0 blobring.conf=blobring_1|slot_a", {}, BLOBRING_ERROR_DAMAGED, "conf line 2: wanted"},
      {"2+0 blobring.conf=blobring_1|", {}, BLOBRING_ERROR_DAMAGED, "conf names no slot"},
      // The library cannot know why; nothing stays open, and the store opens later.
      {"!memory", {}, BLOBRING_ERROR_MEMORY, "BCOpen threw an exception:Unable to alloc"},
      {"!busy",
       {},
       BLOBRING_ERROR_HELD,
       "FileSystem::CreateFile error /s/blobring.conf GetLastError code= 32"},
      {"!full",
       {},
       BLOBRING_ERROR_FULL,
       "BCOpen threw an exception:File::Write didn't write the entire buffer 24 written 12 "
       "GetLastError 112"},
      {"", {}, BLOBRING_ERROR_NONE, "2 slots, 0 blobs"},
      {"0.pak=" + fresh.substr(0, 4), {}, BLOBRING_ERROR_NONE, "2 slots, 0 blobs"},
      {"3+2", {.slots = 3}, BLOBRING_ERROR_NONE, "3 slots, 1 blobs"},
      {"3+2@ blobring.conf=#|blobring_1||slot_/a|slot_/a|slot_/a",
       {.slots = 3},
       BLOBRING_ERROR_NONE,
       "3 slots, 1 blobs"},
      {"2+1", {.readOnly = true}, BLOBRING_ERROR_NONE, "2 slots, 1 blobs, read-only"},
      {"2+1 1.pak=", {.eraseDamaged = true}, BLOBRING_ERROR_NONE, "2 slots, 0 blobs"},
      {"1+0 -0.jrn 0.jrn.kept-1=", {.slots = 1}, BLOBRING_ERROR_NONE, "1 slots, 0 blobs"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.disk);
    FreshMachine();
    Prepare(row.disk);
    const std::string before = Disk();
    const std::string opened = Opened(row.options);
    EXPECT_NE(opened.find(row.text), std::string::npos) << opened;
    EXPECT_EQ(codeOf, row.code);
    EXPECT_EQ(sim::Files().openHandles(), 0U);
    if (row.disk[0] == '!') {
      sim::Files().Heal();
      sim::Memory().RefuseAlloc(0);
      EXPECT_EQ(Opened(row.options), "2 slots, 0 blobs");
    } else if (row.code != BLOBRING_ERROR_NONE) {
      EXPECT_TRUE(Disk() == before);
    }
  }
}

// Damage is shown rather than moved aside.
TEST(Opening, ReadOnlyWritesNothing) {
  FreshMachine();
  blobring::Hash older;
  {
    Store store("/s");
    older = store.put("older");
    store.repack();
    store.put("newer");
  }
  SetFile("/s/1.pak", FileBytes("/s/1.pak").substr(0, 30));
  const std::string before = Disk();
  Store store("/s", {.readOnly = true});
  EXPECT_EQ(store.stats().damaged, 1);
  EXPECT_TRUE(store.contains(older));
  const std::function<void()> changes[] = {[&] { store.put("x"); }, [&] { store.erase(older); },
                                           [&] { store.repack(); }};
  for (const auto& change : changes) {
    try {
      change();
      ADD_FAILURE();
    } catch (const blobring::Error& e) {
      EXPECT_EQ(e.code(), BLOBRING_ERROR_READ_ONLY);
    }
  }
  store.close();
  EXPECT_TRUE(Disk() == before);
}

// Paths are absolute from the start; a directory that is moved takes its files with it.
TEST(Opening, KeepsToItsDirectory) {
  FreshMachine();
  Store store("s", {.slots = 1});
  sim::Files().currentDirectory = "/a";
  const blobring::Hash hash = store.put("blob");
  EXPECT_TRUE(store.repack());
  sim::Files().disk.Rename("/s/0.pak", "/b/0.pak");
  EXPECT_THROW(store.repack(), blobring::Error);
  EXPECT_EQ(store.lastFailure(),
            "BlobController::Repack() refused: /s/0.pak no longer leads to the pack that is open");
  EXPECT_TRUE(store.contains(hash));
}

}  // namespace
}  // namespace test
