// Many blobs in few transactions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "blobring/Store.h"
#include "tools/base/Files.h"

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

  // A blob, what messages call it, and its hash from a caller that has just compared them: a large
  // one is then not digested again.
  struct Item {
    std::string_view data;
    std::string name;
    const blobring::Hash* hash = nullptr;
  };

  // Stores blobs, after a commit when enough has come together, and tells `added` of each in turn.
  // Those that the store has are read and compared, and written again if they cannot be read.
  // Throws Fault, after an attempt to commit what was added before; also if the store has another
  // blob of the same hash. Some MiB at a time are fast and bounded in memory.
  using OnAdded = std::function<void(const Item&, const Added&)>;
  void AddMany(std::span<const Item> items, const OnAdded& added);
  Added Add(std::string_view data, const std::string& name, const blobring::Hash* hash = nullptr);

  // A blob in pieces, as AddMany otherwise. Nothing is added, and nothing returned, if the bytes
  // that are read do not match the item's hash, or the store's blob of that hash.
  std::optional<Added> AddLarge(const LargeItem& item);

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
  void Prepare(uint64_t recordBytes);
  [[noreturn]] void Fail(const std::string& name, const std::exception& error);
  size_t AddSome(std::span<const Item> items, const OnAdded& added, size_t& at);
  void ReadPresent(std::vector<BCFetchItem>& present);
  bool Holds(const BCFetchItem& present, const Item& item);
  bool PutLarge(const LargeItem& item);
  std::optional<bool> HoldsLarge(const LargeItem& item);

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
  Buffer present_;  // blobs that the store has
};

// The object "stored", for --json.
std::string StoredLine(const blobring::Hash& hash, uint64_t size, const std::string& name,
                       bool dryRun);

// For blobring::Transaction: a repack orders blobs by it, and the time does.
long long TransactionId();

}  // namespace tool
