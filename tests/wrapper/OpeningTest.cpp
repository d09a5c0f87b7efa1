// What opening refuses, what it opens, and that a refusal touches nothing.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "tests/support/JournalBytes.h"
#include "tests/support/OpenedStore.h"

namespace test {
namespace {

using blobring::Options;
using blobring::Store;

constexpr int kNone = BLOBRING_ERROR_NONE, kDamaged = BLOBRING_ERROR_DAMAGED,
              kNoStore = BLOBRING_ERROR_NO_STORE, kArgument = BLOBRING_ERROR_ARGUMENT,
              kRefused = BLOBRING_ERROR_REFUSED;

// Makes what the words say:
//   "3"         a store of three slots in /s, never used
//   "3+2"       one that was repacked twice, then used
//   "-1.pak"    a file of /s removed
//   "~1.jrn"    one without its last byte
//   "1.pak=XY"  one with these contents, where | ends a line and _ is a space
void Prepare(const std::string& words) {
  std::istringstream in(words);
  for (std::string word; in >> word;) {
    if (word[0] == '-') {
      sim::Files().disk.Remove("/s/" + word.substr(1));
      sim::Files().disk.SyncDirectory("/s");
    } else if (const std::string path = "/s/" + word.substr(1); word[0] == '~') {
      SetFile(path, FileBytes(path).substr(0, FileBytes(path).size() - 1));
    } else if (const std::size_t at = word.find('='); at != std::string::npos) {
      std::string contents = word.substr(at + 1);
      std::replace(contents.begin(), contents.end(), '|', '\n');
      std::replace(contents.begin(), contents.end(), '_', ' ');
      SetFile("/s/" + word.substr(0, at), contents);
    } else {
      Store store("/s", {.slots = static_cast<unsigned>(word[0] - '0')});
      if (word.size() == 1) continue;
      for (char n = '0'; n < word[2]; ++n) store.repack();
      store.put("blob");
    }
  }
}

std::string Disk() {
  std::string all;
  for (const auto& [path, bytes] : sim::Files().disk.Visible()) all += path + bytes;
  return all;
}

TEST(Opening, RefusesBeforeItTouchesAFileOrOpensWhatTheFilesAgreeWith) {
  const std::string fresh = JournalBytes().Bytes(),
                    own = "2 blobring.conf=blobring_1|slot_.|slot_.| ",
                    two = "2+0 blobring.conf=#|blobring_1||slot_/b/|slot_.|";
  const struct {
    std::string disk;
    Options options;
    int code;
    const char* text;
  } rows[] = {
      {"", {.slots = 1001}, kArgument, "BCOpen: slotCount = 1001"},
      {"", {.mustExist = true}, kNoStore, "BCOpen: there is no store in /s"},
      {"", {.readOnly = true}, kNoStore, "BCOpen: there is no store in /s"},
      {"3", {}, kArgument, "BCOpen: /s/2.jrn belongs"},
      {"1+3 1.pak= 1.jrn=", {}, kArgument, "BCOpen: /s/0.pak has generation 3"},
      {"2 -0.pak -1.pak", {}, kRefused, "/s/0.pak is missing"},
      {"2+1 -1.pak 1.pak.kept-0=", {}, kRefused, "/s/1.pak is missing"},
      {"2+1 1.pak=", {}, kDamaged, "/s/1.jrn has generation 1, but the newest pack, /s/0.pak,"},
      {"2+0 -0.jrn", {}, kRefused, "/s/0.jrn is missing"},
      {"1.jrn=" + With(fresh, 16, "\2") + "x", {}, kRefused, "/s/1.jrn is not a file of"},
      {"0.pak=" + std::string(25, '\0'), {}, kRefused, "/s/0.pak is not a file of"},
      {"1+0 0.pak=" + With(fresh, 12, "\377\377\377\377"),
       {.slots = 1, .readOnly = true},
       kDamaged,
       "no valid Pak files"},
      {own + "0.jrn=Dear_diary,_I_am_no_journal", {}, kRefused, "/s/0.jrn is not a file of"},
      {own + "0.jrn=" + With(fresh, 16, "\2"), {}, kNone, "2 slots, 0 blobs"},
      {own + "0.jrn=" + std::string(25, '\0'), {}, kNone, "2 slots, 0 blobs, damaged"},
      {two, {.slots = 3}, kArgument, "/s/blobring.conf names 2 slots, not 3"},
      {two, {.packDirectories = {"/b", "/b"}}, kArgument, "pack of slot 1 in /s, not in /b"},
      {two, {}, kRefused, "/b//0.pak is missing"},
      {"blobring.conf=#_||blobring_2|", {}, kDamaged, "conf line 3: wanted \"blobring 1\", found"},
      {"blobring.conf=blobring_1|slot_a", {}, kDamaged, "conf line 2: wanted"},
      {"blobring.conf=blobring_1|", {}, kDamaged, "conf names no slot"},
      {"", {}, kNone, "2 slots, 0 blobs"},
      {"0.pak=" + fresh.substr(0, 4), {}, kNone, "2 slots, 0 blobs"},
      {"0.pak=" + std::string(24, '\0'), {.slots = 1}, kNone, "1 slots, 0 blobs"},
      {"3+2", {.slots = 3}, kNone, "3 slots, 1 blobs"},
      {"2+1", {.readOnly = true}, kNone, "2 slots, 1 blobs, read-only"},
      // Damage is shown rather than moved aside.
      {"2+0 ~0.jrn", {.readOnly = true}, kNone, "2 slots, 0 blobs, read-only, damaged"},
      {"2+0 2+1 ~1.pak", {.readOnly = true}, kNone, "2 slots, 1 blobs, read-only, damaged"},
      {"2+1 1.pak=", {.eraseDamaged = true}, kNone, "2 slots, 0 blobs"},
      {"1+0 -0.jrn 0.jrn.kept-1=", {.slots = 1}, kRefused, "/s/0.jrn is missing"},
      {"1+0 -0.jrn 0.jrn.kept-0=", {.slots = 1}, kNone, "1 slots, 0 blobs"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.disk);
    FreshMachine();
    Prepare(row.disk);
    const std::string before = Disk();
    std::string opened;
    const blobring::Error error = ErrorOf([&] {
      Store store("/s", row.options);
      const BCStatistics of = store.stats();
      opened = std::to_string(of.slotCount) + " slots, " + std::to_string(of.blobCount) + " blobs" +
               (of.readOnly != 0 ? ", read-only" : "") + (of.damaged != 0 ? ", damaged" : "");
      if (of.readOnly == 0) return;
      for (const auto& change : std::initializer_list<std::function<void()>>{
               [&] { store.put("x"); }, [&] { store.erase(blobring::Hash()); },
               [&] { store.repack(); }})
        EXPECT_EQ(ErrorOf(change).code(), BLOBRING_ERROR_READ_ONLY);
    });
    EXPECT_TRUE(row.code == kNone ? opened == row.text
                                  : std::string(error.what()).find(row.text) != std::string::npos)
        << opened << error.what();
    EXPECT_EQ(error.code(), row.code);
    EXPECT_EQ(sim::Files().openHandles(), 0U);
    EXPECT_TRUE((row.code == kNone && !row.options.readOnly) || Disk() == before);
  }
}

// A relative path is resolved once, and a pack that was moved away is not replaced.
TEST(Opening, KeepsToItsDirectory) {
  FreshMachine();
  Store store("s", {.slots = 1});
  sim::Files().currentDirectory = "/a";
  const blobring::Hash hash = store.put("blob");
  EXPECT_TRUE(store.repack());
  sim::Files().disk.Rename("/s/0.pak", "/b/0.pak");
  EXPECT_STREQ(ErrorOf([&] { store.repack(); }).what(),
               "blobring: repack: BlobController::Repack() refused: /s/0.pak no longer leads to "
               "the pack that is open");
  EXPECT_TRUE(store.contains(hash));
}

}  // namespace
}  // namespace test
