#include "tests/fuzz/FileModel.h"

#include <algorithm>
#include <numeric>
#include <optional>

#include "tests/support/JournalBytes.h"

namespace fuzz {

namespace {

using test::Get32;
using End = Reading::End;

test::HashBytes HashAt(std::string_view bytes, std::size_t at) {
  test::HashBytes hash;
  std::copy_n(&bytes[at], hash.size(), reinterpret_cast<char*>(hash.data()));
  return hash;
}

bool NothingWasCommitted(std::string_view file) {
  return file.size() < test::kHeaderSize ||
         (file.size() == test::kHeaderSize && Get32(file, 16) != 1 &&
          (Get32(file, 8) > 1 || Get32(file, 20) != 24)) ||
         file == std::string_view("\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 24);
}

// A store or delete record at the front of bytes.
struct Record {
  enum { Whole, NoHead, NoData, WrongOp } state;
  std::size_t size;
  Change change;
};

Record ReadRecord(std::string_view bytes) {
  if (bytes.size() < test::kOpSize) return {Record::NoHead, 0, {}};
  const std::uint32_t op = Get32(bytes, 0);
  if (op > test::kDeleteOp) return {Record::WrongOp, 0, {}};
  const bool isStore = op == test::kStoreOp;
  const std::size_t head = isStore ? test::kStoreSize : test::kDeleteSize;
  if (bytes.size() < head) return {Record::NoHead, 0, {}};
  const std::size_t size = isStore ? Get32(bytes, test::kDeleteSize) : 0;
  if (size > bytes.size() - head) return {Record::NoData, 0, {}};
  const Change change = {isStore, HashAt(bytes, test::kOpSize), bytes.substr(head, size)};
  return {Record::Whole, head + size, change};
}

struct Reader {
  const std::string_view file;
  std::int32_t count = static_cast<std::int32_t>(Get32(file, 4));
  std::string_view rest = file.substr(test::kHeaderSize);
  std::vector<Change> changes = {};
  // Where the last whole transaction ends, and the records up to there.
  std::size_t wholeEnd = test::kHeaderSize;
  std::uint32_t wholeCount = 0;

  End Run() {
    while (count != 0) {
      if (count < 0 || rest.empty()) return End::Damaged;
      --count;
      if (rest.size() >= test::kOpSize && Get32(rest, 0) == test::kStartOp) {
        if (const std::optional<End> end = Transaction()) return *end;
      } else {
        const auto [state, size, change] = ReadRecord(rest);
        if (state == Record::NoHead) return End::CutShort;
        if (state != Record::Whole) return End::Damaged;
        if (change.isStore && test::HashOf(change.data) != change.hash) return End::Damaged;
        changes.push_back(change);
        rest.remove_prefix(size);
      }
      wholeEnd = file.size() - rest.size();
      wholeCount = Get32(file, 4) - static_cast<std::uint32_t>(count);
    }
    return End::Clean;
  }

  // How the reading ends, unless it goes on behind the transaction.
  std::optional<End> Transaction() {
    if (rest.size() < test::kStartSize) return End::CutShort;
    const std::uint32_t length = Get32(rest, 20);
    const test::HashBytes digest = HashAt(rest, 24);
    rest.remove_prefix(test::kStartSize);
    if (length == 0) return End::Damaged;
    if (length > rest.size()) return End::CutShort;
    std::string_view body = rest.substr(0, length);
    rest.remove_prefix(length);
    if (test::HashOf(body) != digest) return End::Damaged;
    std::vector<Change> pending;
    while (!body.empty()) {
      if (count == 0) return End::Clean;  // used up: the header counts no more
      const auto [state, size, change] = ReadRecord(body);
      if (state == Record::NoHead || state == Record::WrongOp) return End::Damaged;
      --count;
      if (state == Record::NoData) return count == 0 ? End::Clean : End::Damaged;
      pending.push_back(change);
      body.remove_prefix(size);
    }
    if (count == 0) return End::Clean;
    if (rest.empty()) return End::Damaged;
    --count;
    if (rest.size() < test::kOpSize) return End::CutShort;
    if (Get32(rest, 0) != test::kEndOp) return End::Damaged;
    rest.remove_prefix(test::kOpSize);
    changes.insert(changes.end(), pending.begin(), pending.end());
    return std::nullopt;
  }
};

void Apply(const Reading& reading, Index& index) {
  for (const auto& [isStore, hash, data] : reading.changes) {
    if (isStore)
      index.insert_or_assign(hash, Blob{std::string(data), test::HashOf(data) == hash});
    else
      index.erase(hash);
  }
}

}  // namespace

Reading ReadFile(std::string_view file) {
  Reading reading;
  if (NothingWasCommitted(file)) return reading;
  reading.sequence = static_cast<std::int32_t>(Get32(file, 12));
  const std::uint32_t end = Get32(file, 20);
  reading.headerLost = end < test::kHeaderSize || end > file.size();
  Reader reader{file};
  reading.end = reader.Run();
  reading.changes = std::move(reader.changes);
  const bool exact = reading.end == End::Clean && !reading.headerLost && reader.wholeEnd == end &&
                     reader.wholeCount == Get32(file, 4);
  reading.countLost = reader.wholeCount == 0 && !exact;
  return reading;
}

Expected ExpectLoad(const std::vector<Slot>& slots, bool keep) {
  std::vector<Reading> packs;
  for (const Slot& slot : slots) packs.push_back(ReadFile(slot.pack));
  std::vector<std::size_t> order(slots.size());
  std::iota(order.begin(), order.end(), 0U);
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    return packs[a].sequence > packs[b].sequence;
  });

  for (const std::size_t slot : order) {
    const Reading& pack = packs[slot];
    if (pack.end == End::CutShort && !keep) return {};
    if (pack.end != End::Clean ||
        (keep && (pack.headerLost || pack.countLost) && pack.changes.empty()))
      continue;
    if (pack.sequence == -1) break;
    const std::size_t journal = static_cast<std::uint32_t>(pack.sequence) % slots.size();
    Expected expected = {true, false, pack.sequence, journal, {}};
    Apply(pack, expected.index);
    Apply(ReadFile(slots[journal].journal), expected.index);
    return expected;
  }
  return {keep, keep, 0, 0, {}};
}

}  // namespace fuzz
