// What a store must make of its files: a second reader, written from docs/format.md. It shares
// nothing with the library but the digest, holds everything in memory and looks at one byte after
// another.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/JournalBytes.h"

namespace fuzz {

struct Blob {
  std::string data;
  bool sound;  // the data matches the hash
};
using Index = std::map<test::HashBytes, Blob>;

// One committed store or delete record; the data lies in the file.
struct Change {
  bool isStore;
  test::HashBytes hash;
  std::string_view data;
};

struct Reading {
  enum class End { Clean, Damaged, CutShort };
  End end = End::Clean;
  std::int32_t sequence = 0;
  bool headerLost = false;  // it is one that no store writes
  bool countLost = false;   // it counts no record whole of those that it covers
  std::vector<Change> changes;
};

// Reads a pack or a journal, which must outlive the reading.
Reading ReadFile(std::string_view file);

struct Slot {
  std::string pack, journal;
};

// What a load makes of a store.
struct Expected {
  bool loaded = false;
  bool movedAside = false;  // all files, to go on empty
  std::int32_t sequence = 0;
  std::size_t journalSlot = 0;
  Index index;
};
Expected ExpectLoad(const std::vector<Slot>& slots, bool keep);

// The life of a store whose files come from elsewhere: load, read, check, commit, repack, each
// followed by a new opening, on the simulated machine. Everything that the store says is compared
// with the model; memory and platform calls are held to what files of that size may cost. Ends the
// program where they differ.
enum Option : unsigned {
  kKeep = 1,       // damage policy
  kPowerCuts = 2,  // the power fails where the store would be closed
  kDeletes = 4     // the first commit deletes a blob
};
void LiveThrough(const std::vector<Slot>& slots, unsigned options);

}  // namespace fuzz
