// A store whose files come from elsewhere, as the tool looks at it: on the real file system, and
// compared with the same model. Stands in for the store's life in the fuzzer.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/fuzz/FileModel.h"
#include "tools/view/StoreView.h"

namespace fuzz {

namespace {

// Removed at the end, unless something was found.
const std::string& MakeDirectory() {
  static std::string* const name = new std::string();  // outlives what atexit(3) runs
  *name = std::filesystem::temp_directory_path() / "view_fuzz_XXXXXX";
  if (::mkdtemp(name->data()) == nullptr) std::abort();
  std::atexit([] { std::filesystem::remove_all(*name); });
  if (std::freopen("/dev/null", "w", stderr) == nullptr) std::abort();  // what is said of damage
  return *name;
}

}  // namespace

void LiveThrough(const std::vector<Slot>& slots, unsigned options) {
  if ((options & kKeep) == 0) return;
  static const std::string& directory = MakeDirectory();
  std::filesystem::remove_all(directory);
  std::filesystem::create_directory(directory);
  for (std::size_t slot = 0; slot < slots.size(); ++slot) {
    const std::string name = directory + "/" + std::to_string(slot);
    std::ofstream(name + ".pak", std::ios::binary) << slots[slot].pack;
    std::ofstream(name + ".jrn", std::ios::binary) << slots[slot].journal;
  }
  const tool::StoreView view({directory, slots.size(), {}, false});
  const Expected expected = ExpectLoad(slots, true);
  std::vector<test::HashBytes> shown, wanted;
  for (const tool::ViewedBlob& blob : view.blobs()) shown.push_back(blob.hash.bytes());
  for (const auto& [hash, blob] : expected.index) wanted.push_back(hash);
  if (shown == wanted && view.slot().has_value() == (expected.loaded && !expected.movedAside))
    return;
  std::printf("NOT SO: a view of %s shows what a load finds\n", directory.c_str());
  std::fflush(stdout);
  std::abort();  // and the files stay
}

}  // namespace fuzz
