#include "tools/view/Naming.h"

#include <fmt/chrono.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <set>
#include <sstream>

#include "tools/base/Console.h"
#include "tools/base/Error.h"

namespace tool {
namespace {

constexpr size_t kLeastDigits = 6;
constexpr size_t kMostShown = 5;  // of ambiguous ones

// The lowest hash that begins with these digits.
blobring::Hash LowestWith(std::string_view digits) {
  std::string padded(digits);
  padded.resize(2 * format::kHashSize, '0');
  const std::optional<blobring::Hash> lowest = blobring::Hash::parse(padded);
  if (digits.empty() || digits.size() > padded.size() || !lowest)
    throw UsageError("not a hash: \"{}\" (expected up to 32 hexadecimal digits)", digits);
  return *lowest;
}

}  // namespace

std::vector<std::string> HashArguments(const std::vector<std::string>& arguments) {
  std::vector<std::string> hashes;
  Buffer buffer;
  for (const std::string& argument : arguments) {
    if (argument != "-") {
      hashes.push_back(argument);
      continue;
    }
    std::istringstream words{std::string(ReadStream("-", buffer))};
    for (std::string word; words >> word;) hashes.push_back(word);
  }
  return hashes;
}

std::vector<const ViewedBlob*> Matching(const StoreView& view, std::string_view digits) {
  const blobring::Hash lowest = LowestWith(digits);
  const std::string wanted = lowest.text().substr(0, digits.size());
  auto at = std::lower_bound(
      view.blobs().begin(), view.blobs().end(), lowest,
      [](const ViewedBlob& blob, const blobring::Hash& hash) { return blob.hash < hash; });
  std::vector<const ViewedBlob*> found;
  for (; at != view.blobs().end() && at->hash.text().starts_with(wanted); ++at)
    found.push_back(&*at);
  return found;
}

const ViewedBlob& Named(const StoreView& view, std::string_view digits) {
  if (digits.size() < kLeastDigits)
    throw UsageError("\"{}\" is too short: a hash is given by at least {} digits", digits,
                     kLeastDigits);
  const std::vector<const ViewedBlob*> found = Matching(view, digits);
  if (found.empty()) throw NothingFound("{} has no blob {}", view.path(), digits);
  if (found.size() == 1) return *found.front();
  std::vector<std::string> shown;
  for (size_t i = 0; i < std::min(found.size(), kMostShown); ++i)
    shown.push_back(found[i]->hash.text());
  throw Ambiguous("{} is ambiguous, {} blobs begin with it: {}{}", digits, found.size(),
                  fmt::join(shown, " "), found.size() > kMostShown ? " ..." : "");
}

NamedBlobs Named(const StoreView& view, const std::vector<std::string>& names) {
  NamedBlobs named;
  std::set<const ViewedBlob*> unique;  // which lie in the order of their hashes
  for (const std::string& name : names) {
    try {
      unique.insert(&Named(view, name));
    } catch (const NothingFound& nothing) {
      named.allThere = false;
      Say("{}", nothing.what());
    }
  }
  named.blobs.assign(unique.begin(), unique.end());
  return named;
}

std::optional<std::string> TimeOf(int64_t transactionId) {
  constexpr int64_t kYear2000 = 946684800;
  constexpr int64_t kYear2100 = 4102444800;
  for (const int64_t perSecond : {1000000, 1000, 1}) {
    const int64_t seconds = transactionId / perSecond;
    if (seconds >= kYear2000 && seconds < kYear2100)
      return fmt::format("{:%FT%TZ}", fmt::gmtime(static_cast<std::time_t>(seconds)));
  }
  return std::nullopt;
}

}  // namespace tool
