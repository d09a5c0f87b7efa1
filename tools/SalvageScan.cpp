#include "tools/SalvageScan.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <cstring>

#include "tools/Buffer.h"

namespace tool {
namespace {

using Kind = SalvagedRecord::Kind;

constexpr uint64_t kOpHeaderSize = 16;
constexpr uint64_t kStoreHeadSize = format::kStoreHeadSize;
constexpr uint64_t kDeleteSize = 32;
constexpr uint64_t kStartSize = 40;
constexpr uint64_t kEndSize = kOpHeaderSize;
enum Op : uint32_t { kOpStore = 0, kOpDelete = 1, kOpStart = 2, kOpEnd = 3 };

// Bytes digested in vain, as a multiple of the file's size, for each class of
// sizes apart: false large records must not use up what small ones need.
constexpr uint64_t kBudgetFactor = 8;
constexpr std::array<uint64_t, 2> kClassLimits = {uint64_t{64} * 1024, uint64_t{4} * 1024 * 1024};

// A digest has fewer than 7 different bytes once in 10^14; zeros and numbers,
// which look like records most often, nearly always do.
constexpr size_t kFewestDifferentBytes = 7;

uint32_t Word(const unsigned char* in) {
  return uint32_t{in[0]} | uint32_t{in[1]} << 8 | uint32_t{in[2]} << 16 | uint32_t{in[3]} << 24;
}

bool LooksLikeDigest(const unsigned char* bytes) {
  std::bitset<256> seen;
  for (size_t i = 0; i < BLOBRING_HASH_SIZE; ++i) seen.set(bytes[i]);
  return seen.count() >= kFewestDifferentBytes;
}

Hash HashAt(const unsigned char* bytes) {
  Hash hash;
  std::copy_n(bytes, Hash::kSize, hash.data());
  return hash;
}

// The first 40 bytes of a would-be record; zeros where the file has ended.
struct Head {
  std::array<unsigned char, kStartSize> bytes = {};
  uint64_t left = 0;  // bytes to the end of the file

  uint32_t op() const { return Word(bytes.data()); }
  bool padded() const { return Word(bytes.data() + 4) == 0; }
  const unsigned char* digest() const { return bytes.data() + 16; }       // of stores and deletes
  uint32_t blobSize() const { return Word(bytes.data() + 32); }           // of stores
  uint32_t length() const { return Word(bytes.data() + 20); }             // of starts
  const unsigned char* blockDigest() const { return bytes.data() + 24; }  // of starts
};

class Scanner {
 public:
  Scanner(SalvageFile& file, SalvageScan& scan) : file_(file), scan_(scan) { spent_.fill(0); }

  void Run();

 private:
  Head HeadAt(uint64_t at);
  bool LooksLikeRecord(uint64_t at);
  bool EndsHere(uint64_t at) { return at == file_.size() || at == scan_.committedEnd; }
  bool Matches(uint64_t at, uint64_t size, const unsigned char* digest);
  void Accept(uint64_t at, uint64_t size, Kind kind, const Head& head);

  bool Follow(uint64_t at);
  bool FollowStore(uint64_t at, const Head& head);
  bool TryStart(uint64_t at, const Head& head);
  bool Probe(uint64_t at);
  uint64_t NextProbe(uint64_t at, uint64_t stop);
  void AdoptStart(uint64_t storeAt, const Head& store);
  void ListUnaccounted();

  SalvageFile& file_;
  SalvageScan& scan_;
  uint64_t floor_ = 0;         // end of the last accepted record
  uint64_t wholeEnd_ = 0;      // end of the last transaction whose digest matched
  std::set<uint64_t> resume_;  // ends of broken records, where the next one must be
  std::array<uint64_t, kClassLimits.size() + 1> spent_;
};

Head Scanner::HeadAt(uint64_t at) {
  Head head;
  head.left = file_.size() - at;
  file_.Read(at, head.bytes.data(), std::min<uint64_t>(head.left, head.bytes.size()));
  return head;
}

// Whether something at this place can be the record after another; cheap.
bool Scanner::LooksLikeRecord(uint64_t at) {
  if (file_.size() - at < kOpHeaderSize) return false;
  const Head head = HeadAt(at);
  if (!head.padded()) return false;
  switch (head.op()) {
    case kOpStore:
      return head.left >= kStoreHeadSize && LooksLikeDigest(head.digest());
    case kOpDelete:
      return head.left >= kDeleteSize && LooksLikeDigest(head.digest());
    case kOpStart:
      return head.left >= kStartSize;
    case kOpEnd:
      return true;
    default:
      return false;
  }
}

// Digests a part of the file and compares, unless too much was digested in
// vain before. at and size lie within the file.
bool Scanner::Matches(uint64_t at, uint64_t size, const unsigned char* digest) {
  const auto limit =
      std::find_if(kClassLimits.begin(), kClassLimits.end(), [&](uint64_t most) { return size <= most; });
  uint64_t& spent = spent_.at(static_cast<size_t>(limit - kClassLimits.begin()));
  if (spent > kBudgetFactor * file_.size()) {
    scan_.budgetSpent = true;
    return false;
  }
  if (file_.Digest(at, size) == HashAt(digest)) return true;
  spent += size;
  return false;
}

void Scanner::Accept(uint64_t at, uint64_t size, Kind kind, const Head& head) {
  const bool store = kind == Kind::kBlob || kind == Kind::kBroken || kind == Kind::kCut;
  const bool hashed = store || kind == Kind::kDelete;
  const uint64_t end = at + size;
  scan_.records.push_back({at, size, store ? head.blobSize() : 0, hashed ? HashAt(head.digest()) : Hash(), kind,
                           end <= wholeEnd_, end <= scan_.committedEnd});
}

bool Scanner::FollowStore(uint64_t at, const Head& head) {
  if (head.left < kStoreHeadSize || head.blobSize() > kMaxBlobSize) return false;
  const uint64_t size = kStoreHeadSize + head.blobSize();
  if (size > head.left) {
    if (head.padded() && LooksLikeDigest(head.digest())) Accept(at, head.left, Kind::kCut, head);
    return false;
  }
  if (Matches(at + kStoreHeadSize, head.blobSize(), head.digest())) {
    Accept(at, size, Kind::kBlob, head);
    floor_ = at + size;
    return true;
  }
  // The next record is looked for where this one ends by its own account, and inside it all the same.
  if (head.padded() && LooksLikeDigest(head.digest())) {
    Accept(at, size, Kind::kBroken, head);
    resume_.insert(at + size);
  }
  return false;
}

// A start record with a transaction behind it that matches its digest.
bool Scanner::TryStart(uint64_t at, const Head& head) {
  // Transactions do not nest; without this, made-up ones could, and each level costs a digest.
  if (at < wholeEnd_ || head.left < kStartSize + kEndSize) return false;
  const uint64_t body = at + kStartSize;
  const uint64_t length = head.length();
  if (length == 0 || length > head.left - kStartSize - kEndSize) return false;
  const Head end = HeadAt(body + length);
  if (end.op() != kOpEnd || !LooksLikeDigest(head.blockDigest())) return false;
  if (!Matches(body, length, head.blockDigest())) return false;
  wholeEnd_ = body + length + kEndSize;
  Accept(at, kStartSize, Kind::kStart, head);
  floor_ = body;
  return true;
}

// The record that must be here because another ended here.
bool Scanner::Follow(uint64_t at) {
  if (file_.size() - at < kOpHeaderSize) return false;
  const Head head = HeadAt(at);
  uint64_t size = 0;
  Kind kind = Kind::kEnd;
  switch (head.op()) {
    case kOpStore:
      return FollowStore(at, head);
    case kOpStart:
      if (TryStart(at, head)) return true;
      kind = Kind::kStart;
      size = kStartSize;
      break;
    case kOpDelete:
      kind = Kind::kDelete;
      size = kDeleteSize;
      break;
    case kOpEnd:
      size = kEndSize;
      break;
    default:
      return false;
  }
  const bool fits = size <= head.left;
  const bool believed = fits && (at + size <= wholeEnd_ || EndsHere(at + size) || LooksLikeRecord(at + size));
  if (!believed) return false;
  Accept(at, size, kind, head);
  floor_ = at + size;
  return true;
}

// The start record before a store that was found by its hash.
void Scanner::AdoptStart(uint64_t storeAt, const Head& store) {
  if (storeAt < floor_ + kStartSize) return;
  const uint64_t at = storeAt - kStartSize;
  const Head head = HeadAt(at);
  if (head.op() != kOpStart || !head.padded()) return;
  if (!std::equal(head.bytes.begin() + 8, head.bytes.begin() + 16, store.bytes.begin() + 8)) return;
  Accept(at, kStartSize, Kind::kStart, head);
}

// A record where nothing says that one must be.
bool Scanner::Probe(uint64_t at) {
  if (file_.size() - at < kStoreHeadSize) return false;
  if (at > floor_) {  // 02 00 00 00: the zeros of a start record begin behind its first byte
    const Head start = HeadAt(at - 1);
    if (start.op() == kOpStart && start.padded() && TryStart(at - 1, start)) return true;
  }
  const Head head = HeadAt(at);
  if (head.op() != kOpStore || head.blobSize() > kMaxBlobSize || head.blobSize() > head.left - kStoreHeadSize)
    return false;
  if (!LooksLikeDigest(head.digest())) return false;
  if (!Matches(at + kStoreHeadSize, head.blobSize(), head.digest())) return false;
  AdoptStart(at, head);
  Accept(at, kStoreHeadSize + head.blobSize(), Kind::kBlob, head);
  floor_ = at + kStoreHeadSize + head.blobSize();
  return true;
}

// The next offset from `at` on, at most `stop`, with four zero bytes.
uint64_t Scanner::NextProbe(uint64_t at, uint64_t stop) {
  while (at < stop) {
    const Bytes window = file_.From(at);
    size_t i = 0;
    for (; i + 4 <= window.size() && at + i < stop; ++i) {
      uint32_t word = 0;
      std::memcpy(&word, window.data() + i, sizeof word);
      if (word == 0) return at + i;
    }
    // Four bytes that reach into the next window are probed as they are.
    if (at + i < stop && i == 0) return at;
    at += i;
  }
  return stop;
}

void Scanner::ListUnaccounted() {
  uint64_t at = std::min<uint64_t>(file_.size(), format::kFileHeaderSize);
  for (const SalvagedRecord& record : scan_.records) {
    if (record.offset > at) scan_.unaccounted.push_back({at, record.offset});
    at = std::max(at, record.end());
  }
  if (at < file_.size()) scan_.unaccounted.push_back({at, file_.size()});
}

void Scanner::Run() {
  const uint64_t size = file_.size();
  uint64_t at = std::min<uint64_t>(size, format::kFileHeaderSize);
  floor_ = at;
  bool follow = true;
  while (at < size) {
    follow = resume_.erase(at) != 0 || follow;
    if ((follow && Follow(at)) || Probe(at)) {
      at = floor_;
      follow = true;
    } else {
      follow = false;
      const auto next = resume_.upper_bound(at);
      at = NextProbe(at + 1, next == resume_.end() ? size : *next);
    }
    resume_.erase(resume_.begin(), resume_.lower_bound(at));
  }
  std::stable_sort(scan_.records.begin(), scan_.records.end(),
                   [](const SalvagedRecord& a, const SalvagedRecord& b) { return a.offset < b.offset; });
  ListUnaccounted();
}

}  // namespace

SalvageScan Scan(SalvageFile& file) {
  SalvageScan scan;
  std::array<unsigned char, format::kFileHeaderSize> header = {};
  const auto headerSize = static_cast<size_t>(std::min<uint64_t>(file.size(), header.size()));
  file.Read(0, header.data(), headerSize);
  scan.header = DescribeHeader(file.path(), file.size(), Bytes(header).first(headerSize));
  scan.committedEnd = scan.sound() ? std::min<uint64_t>(scan.header.header.endOffset, file.size()) : file.size();
  scan.headerCount = Word(header.data() + 4);
  Scanner(file, scan).Run();
  scan.unreadable = file.unreadable();
  return scan;
}

}  // namespace tool
