#include "tests/fuzz/RecordMutator.h"

#include <algorithm>
#include <iterator>

#include "tests/fuzz/Bytes.h"
#include "tests/support/JournalBytes.h"
#include "tests/support/OpenedStore.h"

namespace fuzz {

std::uint64_t Random::Next() {
  std::uint64_t z = state += 0x9E3779B97F4A7C15U;
  z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9U;
  z = (z ^ z >> 27) * 0x94D049BB133111EBU;
  return z ^ z >> 31;
}

namespace {

constexpr std::size_t kHeader = 24, kOp = 16, kHash = 16, kDelete = 32, kStoreHead = 36, kStart = 40;
enum : std::uint32_t { kStoreOp, kDeleteOp, kStartOp, kEndOp };

enum Repair : unsigned { Sizes = 1, Hashes = 2, Lengths = 4, Digests = 8, Header = 16, Everything = 31 };

std::string Digest(std::string_view bytes) {
  const test::HashBytes hash = test::HashOf(bytes);
  return {hash.begin(), hash.end()};
}

std::uint32_t Boundary(Random& random) {
  static constexpr std::uint32_t kEdges[] = {0,           1,           16,          24,          32,
                                             36,          40,          4096,        0x7FFFFFFFU, 0x80000000U,
                                             0x80000001U, 0xFFFFFFDCU, 0xFFFFFFF0U, 0xFFFFFFFEU, 0xFFFFFFFFU};
  return kEdges[random.Below(std::size(kEdges))];
}

class FileRecords {
 public:
  FileRecords(std::string_view file, Random& source) : random(source) {
    header = file.substr(0, kHeader);
    header.resize(kHeader, '\0');
    file.remove_prefix(std::min(file.size(), kHeader));
    while (file.size() >= kOp) {
      const std::size_t size = SizeOf(file);
      records.emplace_back(file.substr(0, size));
      file.remove_prefix(size);
    }
    tail = file;
  }

  std::string Bytes() const {
    std::string bytes = header;
    for (const std::string& record : records) bytes += record;
    return bytes + tail;
  }

  void ChangeOnce() {
    switch (random.Below(12)) {
      case 0:
        return ChangeNumber(header, 4 * random.Below(6));
      case 1:
      case 2:
        return ChangeField();
      case 3:
        return ChangeByte();
      case 4:
        return EraseRange();
      case 5:
        return CopyRange();
      case 6:
        return MoveRecord();
      case 7:
        return CutRecord();
      case 8:
        return CopyHash();
      case 9:
        return ChangeTail();
      case 10:
        return InsertRecord();
      default:
        return InsertTransaction();
    }
  }

  void Mend(unsigned what) {
    for (std::size_t i = 0; i < records.size(); ++i) {
      if (OpOf(i) != kStoreOp || records[i].size() < kStoreHead) continue;
      if ((what & Sizes) != 0) Put32(records[i], kDelete, static_cast<std::uint32_t>(records[i].size() - kStoreHead));
      if ((what & Hashes) != 0) records[i].replace(kOp, kHash, Digest(std::string_view(records[i]).substr(kStoreHead)));
    }
    for (std::size_t i = 0; i < records.size(); ++i)
      if (OpOf(i) == kStartOp && records[i].size() >= kStart) MendBlock(i, what);
    if ((what & Header) == 0) return;
    Put32(header, 4, static_cast<std::uint32_t>(records.size()));
    Put32(header, 20, static_cast<std::uint32_t>(Bytes().size() - tail.size()));
  }

  void Join(const FileRecords& other) {
    records.resize(random.Below(records.size() + 1));
    const std::size_t from = random.Below(other.records.size() + 1);
    records.insert(records.end(), other.records.begin() + static_cast<std::ptrdiff_t>(from), other.records.end());
  }

 private:
  static std::size_t SizeOf(std::string_view bytes) {
    std::size_t size = kOp;
    switch (Get32(bytes, 0)) {
      case kStoreOp:
        size = kStoreHead;
        if (bytes.size() >= size) size += Get32(bytes, kDelete);
        break;
      case kDeleteOp:
        size = kDelete;
        break;
      case kStartOp:
        size = kStart;
        break;
    }
    return std::min(size, bytes.size());
  }

  std::uint32_t OpOf(std::size_t i) const { return records[i].size() < kOp ? kEndOp + 1 : Get32(records[i], 0); }

  void MendBlock(std::size_t i, unsigned what) {
    std::string body;
    for (std::size_t k = i + 1; k < records.size() && OpOf(k) != kEndOp; ++k) body += records[k];
    if ((what & Lengths) != 0) {
      Put32(records[i], kOp + 4, static_cast<std::uint32_t>(body.size()));
    } else {
      body.clear();
      for (std::size_t k = i + 1; k < records.size(); ++k) body += records[k];
      body.resize(std::min<std::size_t>(body.size(), Get32(records[i], kOp + 4)));
    }
    if ((what & Digests) != 0) records[i].replace(kOp + 8, kHash, Digest(body));
  }

  std::size_t Any() { return random.Below(records.size()); }
  auto At(std::size_t i) { return records.begin() + static_cast<std::ptrdiff_t>(i); }
  void Insert(std::string record) { records.insert(At(random.Below(records.size() + 1)), std::move(record)); }

  void ChangeNumber(std::string& bytes, std::size_t at) {
    if (bytes.size() < at + 4) return;
    const std::uint32_t old = Get32(bytes, at);
    const std::uint32_t values[] = {Boundary(random), old + 1, old - 1, old + Boundary(random),
                                    static_cast<std::uint32_t>(Bytes().size()) - random.Below(64)};
    Put32(bytes, at, values[random.Below(std::size(values))]);
  }

  // The op, the ids, a block's length, a blob's size.
  void ChangeField() {
    static constexpr std::size_t kFields[] = {0, 0, 4, 8, 12, 16, 20, 20, 32, 32};
    if (!records.empty()) ChangeNumber(records[Any()], kFields[random.Below(std::size(kFields))]);
  }

  void ChangeByte() {
    if (records.empty()) return;
    std::string& record = records[Any()];
    if (record.empty()) return;
    char& byte = record[random.Below(record.size())];
    byte = static_cast<char>(static_cast<unsigned char>(byte) ^ 1U << random.Below(8));
  }

  // One record, or a transaction with all that it holds.
  std::pair<std::size_t, std::size_t> Range() {
    const std::size_t from = Any();
    std::size_t to = from + 1;
    if (OpOf(from) == kStartOp && !random.OneIn(4)) {
      while (to < records.size() && OpOf(to - 1) != kEndOp) ++to;
    }
    return {from, to};
  }

  void EraseRange() {
    if (records.empty()) return;
    const auto [from, to] = Range();
    records.erase(At(from), At(to));
  }

  void CopyRange() {
    if (records.empty() || records.size() > 200) return;
    const auto [from, to] = Range();
    const std::vector<std::string> copy(At(from), At(to));
    records.insert(At(random.Below(records.size() + 1)), copy.begin(), copy.end());
  }

  void MoveRecord() {
    if (!records.empty()) std::swap(records[Any()], records[Any()]);
  }

  void CutRecord() {
    if (records.empty()) return;
    std::string& record = records[random.OneIn(2) ? records.size() - 1 : Any()];
    record.resize(random.Below(record.size() + 1));
    if (random.OneIn(2)) tail.clear();
  }

  void CopyHash() {
    if (records.empty()) return;
    const std::string& from = records[Any()];
    std::string& to = records[Any()];
    if (from.size() >= kDelete && to.size() >= kDelete) to.replace(kOp, kHash, from.substr(kOp, kHash));
  }

  void ChangeTail() {
    if (random.OneIn(3)) return tail.clear();
    tail += records.empty() || random.OneIn(2) ? std::string(random.Below(64), '\0') : records[Any()];
  }

  std::string SomeData() {
    const std::size_t size = random.OneIn(16) ? 4094 + random.Below(4) : random.Below(48);
    return std::string(size, static_cast<char>('a' + random.Below(26)));
  }

  std::string SomeRecord() {
    const std::int64_t id = random.Below(4);
    return random.OneIn(3) ? test::DeleteRecord(id, SomeData()) : test::StoreRecord(id, SomeData());
  }

  void InsertRecord() {
    if (records.size() > 400) return;
    switch (random.Below(4)) {
      case 0:
        return Insert(test::StartRecord(1, {}));
      case 1:
        return Insert(test::EndRecord(1));
      default:
        return Insert(SomeRecord());
    }
  }

  void InsertTransaction() {
    if (records.size() > 400) return;
    std::vector<std::string> whole = {test::StartRecord(2, {})};
    for (std::size_t n = random.Below(4); n > 0; --n) whole.push_back(SomeRecord());
    whole.push_back(test::EndRecord(2));
    std::size_t at = records.size();
    while (at > 0 && (OpOf(at - 1) != kEndOp || random.OneIn(2))) --at;
    records.insert(At(at), whole.begin(), whole.end());
  }

  Random& random;
  std::string header;
  std::vector<std::string> records;
  std::string tail;
};

// From nothing at all to everything but what was changed last.
unsigned SomeRepair(Random& random) {
  static constexpr unsigned kRepairs[] = {0,
                                          Header,
                                          Digests | Header,
                                          Digests,
                                          Lengths | Digests,
                                          Lengths | Digests | Header,
                                          Hashes | Lengths | Digests | Header,
                                          Everything,
                                          Everything};
  return kRepairs[random.Below(std::size(kRepairs))];
}

std::string Limited(std::string bytes, std::size_t maxSize) {
  bytes.resize(std::min(bytes.size(), maxSize));
  return bytes;
}

}  // namespace

std::string MutateFile(std::string_view file, std::size_t maxSize, Random& random) {
  FileRecords records(file, random);
  for (std::size_t n = 1 + random.Below(3); n > 0; --n) records.ChangeOnce();
  if (random.OneIn(2)) {
    // Right but for one thing, which may lie under digests that are right.
    records.Mend(Everything);
    records.ChangeOnce();
  }
  records.Mend(SomeRepair(random));
  return Limited(records.Bytes(), maxSize);
}

std::string JoinFiles(std::string_view first, std::string_view second, std::size_t maxSize, Random& random) {
  FileRecords records(first, random);
  records.Join(FileRecords(second, random));
  records.Mend(SomeRepair(random));
  return Limited(records.Bytes(), maxSize);
}

}  // namespace fuzz
