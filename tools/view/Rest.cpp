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

// The transaction that begins at `at`, if one does.
std::optional<format::Transaction> FindTransaction(SalvageFile& file, uint64_t at) {
  unsigned char bytes[format::kStartSize];
  file.Read(at, bytes, sizeof bytes);
  const format::Transaction found = {format::StartRecord::Decode(bytes), at};
  const bool isStart = found.start.op == format::kOpStartTransaction;
  return isStart && found.BodyOffset() <= file.Length() ? std::optional(found) : std::nullopt;
}

bool IsEnded(SalvageFile& file, const format::Transaction& transaction) {
  if (transaction.block.length == 0 || transaction.BodyEnd() > file.Length()) return false;
  unsigned char bytes[format::kEndSize];
  file.Read(transaction.BodyEnd(), bytes, sizeof bytes);
  return format::OpHeader::Decode(bytes).op == format::kOpEndTransaction;
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
  const std::optional<format::Transaction> first = FindTransaction(file, at);
  if (!first) return {Kind::kLeftovers, size, "leftovers, no record begins there"};

  // One transaction behind others is a commit whose header was not written. What an emptied file
  // holds, or more than one, is from before.
  const bool isEmptied =
      header.endOffset == format::kFileHeaderSize && header.sequence == format::kSequenceReset;
  const bool isEnded = IsEnded(file, *first);
  const bool isOlder = isEnded && (isEmptied || FindTransaction(file, first->End()).has_value());
  Rest rest = {Kind::kUnfinished, size, {}};
  if (isOlder)
    rest.kind = Kind::kOlder;
  else if (isEnded)
    rest.kind = Kind::kUncounted;
  else if (isEmptied && header.mode == 1)
    rest.kind = Kind::kUnfinishedRepack;
  uint64_t count = 0;
  uint64_t transactionCount = 0;
  for (auto found = first; found; ++transactionCount) {
    ThrowIfInterrupted();
    const uint64_t end = IsEnded(file, *found) ? found->BodyEnd() : file.Length();
    format::VisitRecords(file, found->BodyOffset(), end, [&](const format::Record& each) {
      if (HashOf(each) == blobring::Hash()) return false;  // zeros read as stores of nothing
      record(each, isOlder ? "stale" : "uncommitted");
      ++count;
      return true;
    });
    found = isOlder ? FindTransaction(file, end + format::kEndSize) : std::nullopt;
  }
  const std::string records = Count(count, "whole record");
  if (isOlder)
    rest.what = fmt::format("{} of an older generation, {}", Count(transactionCount, "transaction"),
                            records);
  else if (isEnded)
    rest.what = fmt::format("a transaction whose commit did not reach the header, {}", records);
  else
    rest.what = fmt::format("an unfinished {}, {}",
                            rest.kind == Kind::kUnfinished ? "transaction" : "repack", records);
  return rest;
}

}  // namespace tool
