// What is wrong with a store: what check, the report and clean go by.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/base/Json.h"
#include "tools/view/StoreView.h"

namespace tool {

// "fault": a blob of a current file that cannot be read, or a part of one that is damaged.
struct BlobFault {
  std::string path;
  std::string what;
  uint64_t offset = 0;
  std::optional<blobring::Hash> hash = {};
  uint64_t size = 0;
};
Json FaultObject(const BlobFault& fault);

// The number of blobs in these files that the view does not show. Deleted ones count as well.
uint64_t BlobsOnlyIn(const std::vector<std::string>& paths, const StoreView& view);

// Bytes of a file that was set aside in which there is no record.
uint64_t BytesWithoutRecord(const std::string& path);

// What `check` says of a file that a load set aside; empty if it holds nothing more than the store
// has, or what a power cut leaves of a commit.
std::string FaultInSetAside(const std::string& path, const StoreView& view);

// Compares live blobs with their hashes, looks into what is damaged, and counts what is in files
// that are not shown. Throws StoreChanged rather than call damaged what was overwritten.
std::vector<BlobFault> FindFaults(const StoreView& view, bool blobsToo);

}  // namespace tool
