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

  struct Added {
    Hash hash;
    bool isNew;  // the store did not have it
  };

  // The store must outlive this. `lines` gets whole lines, in order.
  BatchWriter(Store& store, Lines lines);

  // Puts a blob, after a commit when enough has come together; messages call
  // it `name`. Throws Fault; what was added before has then been committed if
  // that was possible.
  Added Add(Bytes data, const std::string& name);

  // A line about the blob added last.
  void AddLine(std::string_view line) { pendingLines_ += line; }

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
