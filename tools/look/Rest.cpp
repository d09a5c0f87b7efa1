#include "tools/look/Rest.h"

#include <algorithm>

#include "tools/Console.h"

namespace tool {
namespace {

bool IsZero(SalvageFile& file, uint64_t at) {
  while (at < file.size()) {
    const auto window = file.From(at);
    if (std::any_of(window.begin(), window.end(), [](unsigned char byte) { return byte != 0; }))
      return false;
    at += window.size();
  }
  return true;
}

}  // namespace

Rest RestOf(SalvageFile& file, uint64_t at,
            const std::function<void(const WalkedRecord&)>& record) {
  if (at >= file.size()) return {};
  using Kind = Rest::Kind;
  const uint64_t size = file.size() - at;
  if (IsZero(file, at)) return {Kind::kZeros, size, "zeros"};
  if (size < format::kStartSize) return {Kind::kLeftovers, size, "leftovers"};
  const auto bytes = file.From(at, format::kStartSize);
  const auto block = format::TransactionBlock::Decode(&bytes[format::kOpHeaderSize]);
  if (format::OpHeader::Decode(bytes.data()).op != format::kOpStartTransaction)
    return {Kind::kLeftovers, size, "leftovers of an older life of the file"};
  const bool isEnded = block.length != 0;
  const uint64_t body = at + format::kStartSize;
  uint64_t count = 0;
  VisitRecords(file, body, isEnded ? std::min(file.size(), body + block.length) : file.size(),
               [&](const WalkedRecord& found) {
                 record(found);
                 ++count;
                 return true;
               });
  return {isEnded ? Kind::kUncounted : Kind::kUnfinished, size,
          fmt::format("{} of {}",
                      isEnded ? "a transaction that does not count, an older one or one "
                                "whose header was not written,"
                              : "an unfinished transaction",
                      Count(count, "whole record"))};
}

}  // namespace tool
