#include "tools/work/BatchWriter.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <utility>

#include "tools/base/Console.h"
#include "tools/base/Error.h"
#include "tools/base/Json.h"
#include "tools/work/Open.h"

namespace tool {
namespace {

// Large enough to amortise a commit, small enough to lose little on interruption.
constexpr size_t kMaxBlobs = 1000;
constexpr uint64_t kMaxBytes = uint64_t{64} * 1024 * 1024;

// What is in a journal moves to a pack before this. The last MiB is left to the store.
constexpr uint64_t kMaxJournalBytes = format::kMaxFileSize - uint64_t{1024} * 1024;

void SayReplaced(const std::string& name, const blobring::Error& error) {
  Say("the store's copy of {} cannot be read and is replaced: {}", name, Explain(error));
}

}  // namespace

long long TransactionId() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string StoredLine(const blobring::Hash& hash, uint64_t size, const std::string& name,
                       bool dryRun) {
  return JsonLine({{"type", "stored"},
                   {"name", name},
                   {"hash", hash.text()},
                   {"size", size},
                   {"dry_run", dryRun}});
}

BatchWriter::BatchWriter(blobring::Store& store, std::string& committedLines, WhenFull whenFull)
    : store_(store), committedLines_(committedLines), whenFull_(whenFull) {
  if (whenFull == WhenFull::kRepack) journalBytes_ = store.stats().journalBytes;
}

// For records of `recordBytes` in all.
void BatchWriter::Prepare(uint64_t recordBytes) {
  const uint64_t bytes = format::kStartSize + format::kEndSize + recordBytes;
  if (whenFull_ == WhenFull::kRepack && journalBytes_ > format::kFileHeaderSize &&
      journalBytes_ + bytes > kMaxJournalBytes) {
    Commit();
    Progress progress("repacking", store_.stats().blobCount);
    store_.repack([&progress](blobring::Operation, uint64_t done, uint64_t) {
      progress.Show(done);
      return true;
    });
    journalBytes_ = format::kFileHeaderSize;
  }
  journalBytes_ += bytes;
  if (pending_.size() >= kMaxBlobs || pendingBytes_ >= kMaxBytes) Commit();
  if (!transaction_) transaction_.emplace(store_, TransactionId());
}

void BatchWriter::Fail(const std::string& name, const std::exception& error) {
  const std::string reason = ExplainInLines(error);  // before the commit has one of its own
  const auto* const first = dynamic_cast<const blobring::Error*>(&error);
  try {
    Commit();
  } catch (const blobring::Error& second) {
    if (first == nullptr || first->systemError() != second.systemError())
      Say("{}", Explain(second));
  }
  throw Fault("cannot store {}: {}", name, reason);
}

BatchWriter::Added BatchWriter::Add(std::string_view data, const std::string& name,
                                    const blobring::Hash* hash) {
  Added result{};
  const Item item{data, name, hash};
  AddMany({&item, 1}, [&result](const Item&, const Added& added) { result = added; });
  return result;
}

void BatchWriter::AddMany(std::span<const Item> items, const OnAdded& added) {
  uint64_t bytes = 0;
  for (const Item& item : items) bytes += format::kStoreHeaderSize + item.data.size();
  Prepare(bytes);
  size_t at = 0;
  try {
    while (at < items.size())
      // What stopped it, the same blob says by itself.
      if (AddSome(items.subspan(at), added, at) == 0) store_.put(items[at].data);
  } catch (const std::runtime_error& error) {
    Fail(items[at].name, error);
  }
}

std::optional<BatchWriter::Added> BatchWriter::AddLarge(const LargeItem& item) {
  Prepare(format::kStoreHeaderSize + item.size);
  try {
    const bool wasThere = store_.contains(item.hash);
    if (!PutLarge(item)) return std::nullopt;
    const std::optional<bool> holds = wasThere ? HoldsLarge(item) : false;
    if (!holds) return std::nullopt;
    const bool isNew = !*holds && pending_.insert(item.hash).second;
    if (isNew) pendingBytes_ += item.size;
    return Added{item.hash, isNew};
  } catch (const Interrupted&) {
    throw;
  } catch (const std::runtime_error& error) {
    Fail(item.name, error);
  }
}

// False if the bytes do not match the hash.
bool BatchWriter::PutLarge(const LargeItem& item) {
  uint64_t at = 0;
  try {
    store_.putFrom(item.hash, item.size, [&](std::span<std::byte> room) {
      const size_t got = item.readAt(at, room);
      at += got;
      return got;
    });
    return true;
  } catch (const blobring::Error& error) {
    if (error.code() != BLOBRING_ERROR_ARGUMENT) throw;
    return false;
  }
}

// As Holds; nothing if the bytes are others.
std::optional<bool> BatchWriter::HoldsLarge(const LargeItem& item) {
  uint64_t at = 0;
  std::vector<std::byte> piece;
  try {
    const auto read = store_.read(item.hash, [&](std::span<const std::byte> present) {
      piece.resize(present.size());
      const bool isSame =
          item.readAt(at, piece) == piece.size() && std::ranges::equal(piece, present);
      at += piece.size();
      return isSame;
    });
    if (read != blobring::Store::Read::Whole || at != item.size) return std::nullopt;
    return true;
  } catch (const blobring::Error& error) {
    SayReplaced(item.name, error);
    if (!PutLarge(item)) return std::nullopt;
    return false;
  }
}

// Stores blobs up to the first that fails, and returns how many. Moves `at` on with each.
size_t BatchWriter::AddSome(std::span<const Item> items, const OnAdded& added, size_t& at) {
  std::vector<BCBlob> blobs(items.size());
  for (size_t i = 0; i < items.size(); ++i)
    blobs[i] = {reinterpret_cast<const unsigned char*>(items[i].data.data()),
                static_cast<int>(items[i].data.size()),
                {}};
  int stored = 0;
  if (items[0].hash != nullptr) {
    std::memcpy(blobs[0].hash, items[0].hash->data(), sizeof blobs[0].hash);
    stored = BCStore(store_.index(), blobs[0].hash, const_cast<unsigned char*>(blobs[0].data),
                     blobs[0].size);
  } else {
    stored = BCPutMany(store_.index(), blobs.data(), static_cast<int>(blobs.size()));
  }
  std::vector<BCFetchItem> present(static_cast<size_t>(stored));
  for (size_t i = 0; i < present.size(); ++i)
    std::copy(std::begin(blobs[i].hash), std::end(blobs[i].hash), present[i].hash);
  ReadPresent(present);
  for (size_t i = 0; i < present.size(); ++i, ++at) {
    const Item& item = items[i];
    const blobring::Hash hash(std::to_array(present[i].hash));
    const bool isNew = !Holds(present[i], item) && pending_.insert(hash).second;
    if (isNew) pendingBytes_ += item.data.size();
    added(item, {hash, isNew});
  }
  return present.size();
}

// Asks for the sizes first, so that memory is taken for what is there alone.
void BatchWriter::ReadPresent(std::vector<BCFetchItem>& present) {
  const auto fetch = [&] {
    return BCFetchMany(store_.index(), present.data(), static_cast<int>(present.size()));
  };
  fetch();
  size_t bytes = 0;
  for (const BCFetchItem& item : present) bytes += static_cast<size_t>(item.size);
  if (bytes == 0) return;
  Grow(present_, bytes);
  auto* buffer = reinterpret_cast<unsigned char*>(present_.data());
  for (BCFetchItem& item : present) {
    item.buffer = std::exchange(buffer, buffer + item.size);
    item.capacity = item.size;
  }
  fetch();
}

// Whether the blob was committed before this transaction. The store takes back what it says of a
// blob that it could not read, so that the second put writes it.
bool BatchWriter::Holds(const BCFetchItem& present, const Item& item) {
  if (present.result == BLOBRING_NOT_FOUND) return false;
  const blobring::Hash hash(std::to_array(present.hash));
  std::string_view bytes(reinterpret_cast<const char*>(present.buffer),
                         static_cast<size_t>(present.size));
  std::optional<std::vector<std::byte>> again;
  if (present.result != BLOBRING_FETCHED) {
    try {
      again = store_.get(hash);
    } catch (const blobring::Error& error) {
      SayReplaced(item.name, error);
      store_.put(item.data);
      return false;
    }
    bytes = {reinterpret_cast<const char*>(again->data()), again->size()};
  }
  if (bytes != item.data)
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
