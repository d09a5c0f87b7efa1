// Which slots BCOpen opens a store with. What is on disk decides: a store that is opened with other
// slots than it has shows an older generation, takes commits to it, and overwrites the newest one
// with a repack.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct OpenOptions {
  std::uint32_t slotCount = 0;            // 0: as the layout file has it, or else 2
  const char* const* packDirs = nullptr;  // of each slot; null: as the layout file, or the store's
  bool eraseDamaged = false;
  bool mustExist = false;
  bool readOnly = false;
};

// The pack directory of every slot of the store in `directory`, from its layout file or else from
// the options, which are complete. Throws Failure, with a text that names the file, where the store
// must not be opened. Reads the first bytes of its files; writes and creates nothing.
std::vector<std::string> SlotsToOpen(const std::string& directory, const OpenOptions& options);
