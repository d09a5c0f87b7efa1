#include "tools/BatchWriter.h"

#include <utility>

#include "tools/Console.h"
#include "tools/Error.h"

namespace tool {
namespace {

// A commit costs two flushes: enough blobs to make that nothing, few enough
// that an interrupted import has lost little.
constexpr size_t kMaxBlobs = 1000;
constexpr uint64_t kMaxBytes = uint64_t{64} * 1024 * 1024;

}  // namespace

BatchWriter::BatchWriter(Store& store, Lines lines) : store_(store), lines_(std::move(lines)) {}

bool BatchWriter::Add(const Hash& hash, Bytes data, const std::string& line) {
  const bool isNew = !pending_.contains(hash) && !store_.SizeOf(hash);
  if (isNew) {
    if (!std::exchange(open_, true)) store_.Begin();
    try {
      store_.Put(hash, data);
    } catch (const Fault&) {
      try {
        Commit();
      } catch (const Fault& second) {
        Say(second.what());
      }
      throw;
    }
    pending_.insert(hash);
    pendingBytes_ += data.size();
  }
  pendingLines_ += line;
  if (pending_.size() >= kMaxBlobs || pendingBytes_ >= kMaxBytes) Commit();
  return isNew;
}

void BatchWriter::Commit() {
  if (std::exchange(open_, false)) store_.Commit();
  pending_.clear();
  pendingBytes_ = 0;
  lines_(std::exchange(pendingLines_, std::string()));
}

}  // namespace tool
