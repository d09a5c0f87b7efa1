// Many blobs in few transactions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "blobring/Store.h"

namespace tool {

// Stores blobs in transactions that are bounded in count and bytes. A line that is in
// committedLines stands for a blob that a power cut cannot take.
class BatchWriter {
 public:
  struct Added {
    blobring::Hash hash;
    bool isNew;  // the store did not have it, or only a damaged copy
  };

  // kRepack: what is in the journal moves to a pack before the journal is full.
  enum class WhenFull { kFail, kRepack };

  // Both must outlive this. Lines are appended, in order.
  BatchWriter(blobring::Store& store, std::string& committedLines,
              WhenFull whenFull = WhenFull::kFail);

  // Stores a blob, after a commit when enough has come together. Messages call it `name`. One that
  // the store has is read and compared, and written again if it cannot be read. Throws Fault, after
  // an attempt to commit what was added before; also if the store has another blob of this hash.
  Added Add(std::string_view data, const std::string& name);

  // A line about the blob added last.
  void AddLine(std::string_view line) { pendingLines_ += line; }

  // For an interrupt: commits what was added, and throws Interrupted with what was committed in
  // all.
  [[noreturn]] void CommitInterrupted();

  // New blobs that were committed.
  uint64_t committedCount() const { return committedCount_; }
  uint64_t committedBytes() const { return committedBytes_; }

  // Commits what was added. REQUIRES: called at the end. Throws blobring::Error.
  void Commit();

 private:
  void MakeRoom(uint64_t blobSize);
  bool Holds(const blobring::Hash& hash, std::string_view data, const std::string& name);

  blobring::Store& store_;
  std::string& committedLines_;
  std::optional<blobring::Transaction> transaction_;
  std::set<blobring::Hash> pending_;
  uint64_t pendingBytes_ = 0;
  uint64_t committedCount_ = 0;
  uint64_t committedBytes_ = 0;
  WhenFull whenFull_;
  uint64_t journalBytes_ = 0;  // at least what is in the journal, if whenFull_ is kRepack
  std::string pendingLines_;
  std::vector<std::byte> present_;  // a blob that the store has
};

// For blobring::Transaction: a repack orders blobs by it, and the time does.
long long TransactionId();

}  // namespace tool
