// How blobs, transactions and times are named by users and shown to them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/view/StoreView.h"

namespace tool {

// The arguments, with the words of standard input for "-".
std::vector<std::string> HashArguments(const std::vector<std::string>& arguments);

// The blobs whose hashes begin with `digits`, of any number. Throws UsageError if those are none.
std::vector<const ViewedBlob*> Matching(const StoreView& view, std::string_view digits);

// The one blob that a hash, or at least 6 digits of it, names. Throws UsageError if it names none
// for its form, Ambiguous if several; NothingFound if there is no such blob.
const ViewedBlob& Named(const StoreView& view, std::string_view digits);

// The blobs of several names in ascending order of their hashes, each once. Those that are not
// there are named. Throws UsageError as above.
struct NamedBlobs {
  std::vector<const ViewedBlob*> blobs;
  bool allThere = true;
};
NamedBlobs Named(const StoreView& view, const std::vector<std::string>& names);

// "2026-11-25T08:00:00Z" where an id is plausibly a time in microseconds, as this tool writes it,
// in milliseconds, or in seconds since 1970.
std::optional<std::string> TimeOf(int64_t transactionId);

}  // namespace tool
