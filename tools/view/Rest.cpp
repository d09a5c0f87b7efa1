#include "tools/view/Rest.h"

#include <algorithm>
#include <array>

#include "tools/base/Console.h"
#include "tools/base/Interrupt.h"

namespace tool {
namespace {

using Kind = Rest::Kind;

bool IsZero(SalvageFile& file, uint64_t at) {
  while (at < file.Length()) {
    const auto window = file.From(at, 1);
    if (std::any_of(window.begin(), window.end(), [](unsigned char byte) { return byte != 0; }))
      return false;
    at += window.size();
  }
  return true;
}

// Where the body of the transaction at `at` begins and ends; nothing if none begins there. Its end
// is that of the file if it was not ended.
struct Found {
  uint64_t body;
  uint64_t bodyEnd;
  bool isEnded;
};
std::optional<Found> FindTransaction(SalvageFile& file, uint64_t at) {
  std::array<unsigned char, format::kStartSize> bytes;
  file.Read(at, bytes.data(), bytes.size());
  if (format::OpHeader::Decode(bytes.data()).op != format::kOpStartTransaction) return std::nullopt;
  const uint64_t body = at + format::kStartSize;
  if (body > file.Length()) return std::nullopt;
  const uint32_t length = format::TransactionBlock::Decode(&bytes[format::kOpHeaderSize]).length;
  if (length == 0 || length > file.Length() - body) return Found{body, file.Length(), false};
  file.Read(body + length, bytes.data(), bytes.size());
  const bool isEnded = format::OpHeader::Decode(bytes.data()).op == format::kOpEndTransaction;
  return Found{body, isEnded ? body + length : file.Length(), isEnded};
}

}  // namespace

std::string_view NameOf(Rest::Kind kind) {
  constexpr std::array<std::string_view, 7> kNames = {"nothing",
                                                      "zeros",
                                                      "unfinished_transaction",
                                                      "unfinished_repack",
                                                      "uncommitted_transaction",
                                                      "older_generation",
                                                      "leftovers"};
  return kNames.at(static_cast<size_t>(kind));
}

Rest RestOf(SalvageFile& file, const format::FileHeader& header, uint64_t at,
            const std::function<void(const format::Record&, std::string_view)>& record) {
  if (at >= file.Length()) return {};
  const uint64_t size = file.Length() - at;
  if (IsZero(file, at)) return {Kind::kZeros, size, "zeros"};
  const std::optional<Found> first = FindTransaction(file, at);
  if (!first) return {Kind::kLeftovers, size, "leftovers, no record begins there"};

  // One transaction behind others is a commit whose header was not written. What an emptied file
  // holds, or more than one, is from before.
  const bool isEmptied =
      header.endOffset == format::kFileHeaderSize && header.sequence == format::kSequenceReset;
  const uint64_t next = first->bodyEnd + format::kEndSize;
  const bool isOlder = first->isEnded && (isEmptied || FindTransaction(file, next).has_value());
  Rest rest = {Kind::kUnfinished, size, {}};
  if (isOlder)
    rest.kind = Kind::kOlder;
  else if (first->isEnded)
    rest.kind = Kind::kUncounted;
  else if (isEmptied && header.mode == 1)
    rest.kind = Kind::kUnfinishedRepack;
  uint64_t count = 0;
  uint64_t transactionCount = 0;
  for (std::optional<Found> found = first; found; ++transactionCount) {
    ThrowIfInterrupted();
    format::VisitRecords(file, found->body, found->bodyEnd, [&](const format::Record& each) {
      if (HashOf(each) == blobring::Hash()) return false;  // zeros read as stores of nothing
      record(each, isOlder ? "stale" : "uncommitted");
      ++count;
      return true;
    });
    at = found->bodyEnd + format::kEndSize;
    found = isOlder ? FindTransaction(file, at) : std::nullopt;
  }
  const std::string records = Count(count, "whole record");
  if (isOlder)
    rest.what = fmt::format("{} of an older generation, {}", Count(transactionCount, "transaction"),
                            records);
  else if (first->isEnded)
    rest.what = fmt::format("a transaction whose commit did not reach the header, {}", records);
  else
    rest.what = fmt::format("an unfinished {}, {}",
                            rest.kind == Kind::kUnfinished ? "transaction" : "repack", records);
  return rest;
}

}  // namespace tool
