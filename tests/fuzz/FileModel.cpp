#include "tests/fuzz/FileModel.h"

#include <algorithm>
#include <numeric>
#include <optional>

#include "tests/fuzz/Bytes.h"

namespace fuzz {

namespace {

constexpr std::size_t kHeader = 24, kOp = 16, kBlock = 24, kHash = 16;
enum : std::uint32_t { kStore, kDelete, kStart, kEnd };

using End = Reading::End;

test::HashBytes HashAt(std::string_view bytes, std::size_t at) {
  test::HashBytes hash;
  std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), kHash,
              reinterpret_cast<char*>(hash.data()));
  return hash;
}

bool NothingWasCommitted(std::string_view file) {
  return file.size() < kHeader ||
         (file.size() == kHeader &&
          std::all_of(file.begin(), file.end(), [](char byte) { return byte == 0; }));
}

// The records of one transaction: all of body, as long as the count lasts.
struct Body {
  enum class State { Whole, CountUsed, Damaged } state = State::Whole;
  std::vector<Change> changes;
};

Body ReadBody(std::string_view body, std::int32_t& count) {
  Body result;
  const auto ends = [&](Body::State state) {
    result.state = state;
    return result;
  };
  while (!body.empty()) {
    // A record whose head is cut off by the end is damage, unless the count
    // was used up before it.
    if (count == 0) return ends(Body::State::CountUsed);
    if (body.size() < kOp) return ends(Body::State::Damaged);
    const std::uint32_t op = Get32(body, 0);
    if (op != kStore && op != kDelete) return ends(Body::State::Damaged);
    const std::size_t head = kOp + kHash + (op == kStore ? 4 : 0);
    if (body.size() < head) return ends(Body::State::Damaged);
    const std::uint32_t size = op == kStore ? Get32(body, kOp + kHash) : 0;
    --count;
    if (size > body.size() - head)
      return ends(count == 0 ? Body::State::CountUsed : Body::State::Damaged);
    result.changes.push_back({op == kStore, HashAt(body, kOp), body.substr(head, size)});
    body.remove_prefix(head + size);
  }
  return ends(count == 0 ? Body::State::CountUsed : Body::State::Whole);
}

// Reads on from `at`; nothing when the file goes on behind it.
class Reader {
 public:
  Reader(std::string_view bytes, Reading& reading)
      : file(bytes), out(reading), count(static_cast<std::int32_t>(Get32(bytes, 4))) {}

  End Run() {
    while (count != 0) {
      if (count < 0 || at == file.size()) return End::Damaged;
      --count;
      if (Left() < kOp) return End::CutShort;
      const std::uint32_t op = Get32(file, at);
      at += kOp;
      if (op > kStart) return End::Damaged;
      if (const std::optional<End> end = op == kStart ? Transaction() : Single(op)) return *end;
    }
    return End::Clean;
  }

  // Where the last whole transaction ends, and the records up to there.
  std::size_t wholeEnd = kHeader;
  std::uint32_t wholeCount = 0;

 private:
  std::size_t Left() const { return file.size() - at; }

  std::optional<End> Single(std::uint32_t op) {
    const std::size_t head = kHash + (op == kStore ? 4 : 0);
    if (Left() < head) return End::CutShort;
    const std::uint32_t size = op == kStore ? Get32(file, at + kHash) : 0;
    if (size > Left() - head) return End::Damaged;
    const std::string_view data = file.substr(at + head, size);
    if (op == kStore && test::HashOf(data) != HashAt(file, at)) return End::Damaged;
    out.changes.push_back({op == kStore, HashAt(file, at), data});
    at += head + size;
    Whole();
    return std::nullopt;
  }

  std::optional<End> Transaction() {
    if (Left() < kBlock) return End::CutShort;
    const std::uint32_t length = Get32(file, at + 4);
    const test::HashBytes digest = HashAt(file, at + 8);
    at += kBlock;
    if (length == 0) return End::Damaged;
    if (length > Left()) return End::CutShort;
    const std::string_view body = file.substr(at, length);
    at += length;
    if (test::HashOf(body) != digest) return End::Damaged;

    const Body records = ReadBody(body, count);
    if (records.state == Body::State::Damaged) return End::Damaged;
    if (records.state == Body::State::CountUsed) return End::Clean;
    if (Left() == 0) return End::Damaged;
    --count;
    if (Left() < kOp) return End::CutShort;
    if (Get32(file, at) != kEnd) return End::Damaged;
    at += kOp;
    out.changes.insert(out.changes.end(), records.changes.begin(), records.changes.end());
    Whole();
    return std::nullopt;
  }

  void Whole() {
    wholeEnd = at;
    wholeCount = Get32(file, 4) - static_cast<std::uint32_t>(count);
  }

  const std::string_view file;
  Reading& out;
  std::int32_t count;
  std::size_t at = kHeader;
};

void Apply(const Reading& reading, Index& index) {
  for (const Change& change : reading.changes) {
    if (!change.isStore) {
      index.erase(change.hash);
    } else {
      index.insert_or_assign(
          change.hash, Blob{std::string(change.data), test::HashOf(change.data) == change.hash});
    }
  }
}

}  // namespace

Reading ReadFile(std::string_view file) {
  Reading reading;
  if (NothingWasCommitted(file)) return reading;
  reading.sequence = static_cast<std::int32_t>(Get32(file, 12));
  const std::uint32_t end = Get32(file, 20);
  reading.headerLost = end < kHeader || end > file.size();
  Reader reader(file, reading);
  reading.end = reader.Run();
  reading.exact = reading.end == End::Clean && !reading.headerLost && reader.wholeEnd == end &&
                  reader.wholeCount == Get32(file, 4);
  reading.countLost = reader.wholeCount == 0 && !reading.exact;
  return reading;
}

Expected ExpectLoad(const std::vector<Slot>& slots, bool keep) {
  Expected expected;
  std::vector<Reading> packs;
  packs.reserve(slots.size());
  for (const Slot& slot : slots) packs.push_back(ReadFile(slot.pack));
  std::vector<std::size_t> order(slots.size());
  std::iota(order.begin(), order.end(), 0U);
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    return packs[a].sequence > packs[b].sequence;
  });

  for (const std::size_t slot : order) {
    const Reading& pack = packs[slot];
    if (pack.end == End::CutShort && !keep) return expected;
    if (pack.end != End::Clean ||
        (keep && (pack.headerLost || pack.countLost) && pack.changes.empty()))
      continue;
    if (pack.sequence == -1) break;
    expected.loaded = true;
    expected.sequence = pack.sequence;
    expected.journalSlot = static_cast<std::uint32_t>(pack.sequence) % slots.size();
    Apply(pack, expected.index);
    Apply(ReadFile(slots[expected.journalSlot].journal), expected.index);
    return expected;
  }
  expected.loaded = expected.movedAside = keep;
  return expected;
}

}  // namespace fuzz
