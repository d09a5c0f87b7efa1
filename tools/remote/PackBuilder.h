// Makes pack files, docs/format.md, of blobs that come one after another.
#pragma once

#include <memory>

#include "pack/format/Format.h"
#include "tools/remote/Formats.h"
#include "tools/remote/Spool.h"

namespace tool::remote {

constexpr uint64_t kPackSize = uint64_t{16} * 1024 * 1024;  // what packs aim at; bytes
// What a push or a prune publishes in one index, which a reader has in memory.
constexpr size_t kPacksInIndex = 64;
constexpr size_t kPlacesInIndex = 500'000;
inline bool IsFull(const Index& index) {
  return index.packs.size() >= kPacksInIndex || index.places.size() >= kPlacesInIndex;
}

struct BuiltPack {
  std::string name;  // MD5-NONCE
  std::shared_ptr<Spool> file;
  blobring::Hash digest;  // of the file
  Index index;            // of this pack alone, sorted
  uint64_t blobBytes = 0;
};

class PackBuilder {
 public:
  // True if there are packs, and a blob of blobSize bytes would take them beyond 4 * kPackSize,
  // which is what is digested side by side.
  bool IsFullFor(uint64_t blobSize) const;

  // `transactionId` is that under which the blob was committed. Throws Fault.
  void Add(const blobring::Hash& hash, int64_t transactionId, std::string_view data);

  // Ends the packs.
  std::vector<BuiltPack> Finish();

 private:
  std::vector<BuiltPack> packs_;
};

}  // namespace tool::remote
