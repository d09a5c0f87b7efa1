// What looking commands and the report have in common: objects of docs/json.md.
#pragma once

#include <string>
#include <vector>

#include "tools/base/Json.h"
#include "tools/view/StoreView.h"

namespace tool {

// From this share of the largest file on, users are warned.
constexpr double kWarnFrom = 0.8;
double ShareOfLimit(uint64_t bytes);

// "stat", then a "file" for each of the store's files.
std::vector<Json> StatObjects(const StoreView& view);
Json FileObject(const StoreView& view, size_t index);

// "blob": one that `ls` lists or `get` writes.
Json BlobObject(const StoreView& view, const ViewedBlob& blob);

}  // namespace tool
