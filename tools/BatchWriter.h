// Many blobs in few transactions.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>

#include "tools/Store.h"

namespace tool {

// Stores blobs in transactions that are bounded in count and bytes, and hands
// over the caller's line for each blob once the blob is safe on disk: a line
// that was written stands for a blob that a power cut cannot take.
class BatchWriter {
 public:
  using Lines = std::function<void(std::string_view)>;

  // The store must outlive this. `lines` gets whole lines, in order.
  BatchWriter(Store& store, Lines lines);

  // Puts a blob unless the store has it. Returns whether it was new. Throws
  // Fault; what was added before has then been committed if that was possible.
  bool Add(const Hash& hash, Bytes data, const std::string& line);

  // Commits what was added. To be called at the end.
  void Commit();

 private:
  Store& store_;
  Lines lines_;
  std::set<Hash> pending_;
  uint64_t pendingBytes_ = 0;
  std::string pendingLines_;
  bool open_ = false;
};

}  // namespace tool
