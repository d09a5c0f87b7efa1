// One life of a store in a process, through the exported functions alone.
//
// Every call that the interface says does not throw is checked not to; every
// answer is checked to be one of those that the interface names.
#pragma once

#include <string>

#include "tests/sim/Blobs.h"

namespace explore {

// The store broke a promise. Not a std::exception, so that nothing between
// the check and the report takes it for a failure of the store's own.
struct Violation {
  std::string text;
};

// Where the simulated stores lie: journals and even packs in /s, odd packs in
// /p.
std::string PackPath(int slot);
std::string JournalPath(int slot);
// An empty disk with these directories.
void FreshMachine();

class Session {
 public:
  explicit Session(int slots, bool keepDamaged = false) : slots_(slots), keepDamaged_(keepDamaged) {}

  int slots() const { return slots_; }
  bool isOpen() const { return index_ >= 0; }

  // The steps of opening. False: refused, with a std::exception.
  bool Initialize();
  bool AddPackDir(int slot);
  bool Load();
  bool Start(long long id);
  bool Store(int blob);
  bool Put(int blob);  // the hash that comes back must be the blob's
  bool Delete(int blob);
  bool End(long long id);
  bool Repack();
  enum class Check { Sound, Faults, NoMemory };
  Check Fsck();
  void Dispose();

  // Everything at once; a Violation when any step fails.
  void Open();
  // What the index lists.
  Mask List();
  // Reads every blob of the mask and compares it with what was stored.
  // False: a read failed (the store is then closed). Anything else that is
  // not as stored is a Violation.
  bool ReadAll(Mask blobs);
  // List, ReadAll and Fsck: all sound. Violations otherwise.
  Mask ExpectSound();

 private:
  int slots_;
  bool keepDamaged_;
  int index_ = -1;
};

}  // namespace explore
