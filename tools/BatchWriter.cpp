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
constexpr size_t kMaxLineBytes = size_t{1024} * 1024;

}  // namespace

BatchWriter::BatchWriter(Store& store, Lines lines) : store_(store), lines_(std::move(lines)) {}

BatchWriter::Added BatchWriter::Add(Bytes data, const std::string& name) {
  if (pending_.size() >= kMaxBlobs || pendingBytes_ >= kMaxBytes || pendingLines_.size() >= kMaxLineBytes) Commit();
  if (!std::exchange(open_, true)) store_.Begin();
  try {
    const Hash hash = store_.Put(data, name);
    // The store finds committed blobs only.
    const bool isNew = !store_.SizeOf(hash) && pending_.insert(hash).second;
    if (isNew) pendingBytes_ += data.size();
    return {hash, isNew};
  } catch (const Fault&) {
    try {
      Commit();
    } catch (const Fault& second) {
      Say(second.what());
    }
    throw;
  }
}

void BatchWriter::Commit() {
  if (std::exchange(open_, false)) store_.Commit();
  pending_.clear();
  pendingBytes_ = 0;
  lines_(std::exchange(pendingLines_, std::string()));
}

}  // namespace tool
