#include "tools/BatchWriter.h"

#include <chrono>
#include <cstring>
#include <utility>

#include "tools/Console.h"
#include "tools/Error.h"
#include "tools/Open.h"

namespace tool {
namespace {

// Enough blobs to make the cost of a commit nothing, few enough that an interrupted import has lost
// little.
constexpr size_t kMaxBlobs = 1000;
constexpr uint64_t kMaxBytes = uint64_t{64} * 1024 * 1024;

// What is in a journal moves to a pack before this. The last MiB is left to the store.
constexpr uint64_t kMaxJournalBytes = format::kMaxFileSize - uint64_t{1024} * 1024;

}  // namespace

long long TransactionId() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

BatchWriter::BatchWriter(blobring::Store& store, std::string& committedLines, WhenFull whenFull)
    : store_(store), committedLines_(committedLines), whenFull_(whenFull) {
  if (whenFull == WhenFull::kRepack) journalBytes_ = store.stats().journalBytes;
}

void BatchWriter::MakeRoom(uint64_t blobSize) {
  const uint64_t bytes = format::kStoreHeadSize + blobSize + format::kStartSize + format::kEndSize;
  if (journalBytes_ > format::kFileHeaderSize && journalBytes_ + bytes > kMaxJournalBytes) {
    Commit();
    Progress progress("repacking", store_.stats().blobCount);
    store_.repack([&progress](blobring::Operation, uint64_t done, uint64_t) {
      progress.Show(done);
      return true;
    });
    journalBytes_ = format::kFileHeaderSize;
  }
  journalBytes_ += bytes;
}

BatchWriter::Added BatchWriter::Add(std::string_view data, const std::string& name) {
  if (whenFull_ == WhenFull::kRepack) MakeRoom(data.size());
  if (pending_.size() >= kMaxBlobs || pendingBytes_ >= kMaxBytes) Commit();
  if (!transaction_) transaction_.emplace(store_, TransactionId());
  try {
    const blobring::Hash hash = store_.put(data);
    const bool isNew = !Holds(hash, data, name) && pending_.insert(hash).second;
    if (isNew) pendingBytes_ += data.size();
    return {hash, isNew};
  } catch (const std::runtime_error& error) {
    const std::string reason = Explain(error);  // before the commit has one of its own
    try {
      Commit();
    } catch (const blobring::Error& second) {
      Say("{}", Explain(second));
    }
    throw Fault("cannot store {}: {}", name, reason);
  }
}

// Whether the blob was committed before this transaction. The store takes back what it says of a
// blob that it could not read, so that the second put writes it.
bool BatchWriter::Holds(const blobring::Hash& hash, std::string_view data,
                        const std::string& name) {
  const std::optional<size_t> size = SizeOf(store_, hash);
  if (!size) return false;
  present_.resize(*size);
  try {
    store_.get(hash, present_);
  } catch (const blobring::Error& error) {
    Say("the store's copy of {} cannot be read and is replaced: {}", name, Explain(error));
    store_.put(data);
    return false;
  }
  if (*size != data.size() || (*size > 0 && std::memcmp(present_.data(), data.data(), *size) != 0))
    throw Fault("the store has other contents with the same MD5 digest, {}", hash.text());
  return true;
}

void BatchWriter::Commit() {
  if (transaction_) transaction_->commit();
  transaction_.reset();
  committedCount_ += pending_.size();
  committedBytes_ += pendingBytes_;
  pending_.clear();
  pendingBytes_ = 0;
  committedLines_ += std::exchange(pendingLines_, {});
}

void BatchWriter::CommitInterrupted() {
  Commit();
  throw Interrupted("interrupted: {} committed, {}; run it again to go on",
                    Count(committedCount_, "new blob"), HumanSize(committedBytes_));
}

}  // namespace tool
