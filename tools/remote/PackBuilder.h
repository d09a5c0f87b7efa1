// Makes a pack file, docs/format.md, of blobs that come one after another.
#pragma once

#include <memory>

#include "md5/MD5.h"
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
  bool empty() const { return pack_.index.places.empty(); }

  // True if a blob of so many bytes must go into another pack.
  bool IsFullFor(uint64_t blobSize) const;

  // `transactionId` is that under which the blob was committed. Throws Fault.
  void Add(const blobring::Hash& hash, int64_t transactionId, std::string_view data);

  // Ends the pack and begins another. REQUIRES: not empty().
  BuiltPack Finish();

 private:
  void WriteOut();

  BuiltPack pack_;
  std::string gathered_;  // the last bytes, not yet written
  MD5 digest_;            // of the records
  uint64_t end_ = 0;      // of the records
  uint32_t maxBlobSize_ = 0;
};

}  // namespace tool::remote
