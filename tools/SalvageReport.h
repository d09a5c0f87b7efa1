// What a salvage tells.
#pragma once

#include "tools/SalvageSet.h"

namespace tool {

// Of one file: what a store would have shown and cannot.
struct SalvageDamage {
  bool header = false;              // cannot be what a commit wrote, or counts other records than are there
  uint64_t brokenTransactions = 0;  // committed and not whole
  uint64_t brokenRecords = 0;       // committed, the data does not match
  uint64_t lostBytes = 0;           // committed, of no record
  bool unreadable = false;
  bool budgetSpent = false;

  bool any() const {
    return header || brokenTransactions != 0 || brokenRecords != 0 || lostBytes != 0 || unreadable || budgetSpent;
  }
};

SalvageDamage DamageOf(const SalvagedFile& file);

// Prints a paragraph for each file. Returns whether nothing is damaged or missing.
bool PrintSalvagedFiles(const SalvageSet& set);

}  // namespace tool
