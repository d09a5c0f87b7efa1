#include "tests/support/JournalBytes.h"

#include <algorithm>

namespace test {

namespace {

std::string Number(std::uint64_t value, int bytes = 4) {
  std::string text;
  for (int i = 0; i < bytes; ++i) text.push_back(static_cast<char>(value >> (8 * i)));
  return text;
}

}  // namespace

std::uint32_t Get32(std::string_view bytes, std::size_t at) {
  std::uint32_t value = 0;
  for (std::size_t i = 4; i-- > 0;) value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
  return value;
}

void Put32(std::string& bytes, std::size_t at, std::size_t value) {
  bytes.replace(at, 4, Number(value));
}

HashBytes HashOf(std::string_view data) {
  HashBytes hash{};
  BCMD5ChkSum(reinterpret_cast<const unsigned char*>(data.data()),
              static_cast<unsigned>(data.size()), hash.data());
  return hash;
}

std::string Digest(std::string_view bytes) {
  const HashBytes hash = HashOf(bytes);
  return {hash.begin(), hash.end()};
}

std::string Hex(std::string_view digits) {
  std::string bytes;
  int high = -1;
  for (const char c : digits) {
    if (c == ' ') continue;
    const int value = c <= '9' ? c - '0' : c - 'a' + 10;
    if (high >= 0) bytes.push_back(static_cast<char>(high << 4 | value));
    high = high < 0 ? value : -1;
  }
  return bytes;
}

std::string With(std::string text, std::size_t at, std::string_view bytes) {
  return text.replace(at, bytes.size(), bytes);
}

std::string OpHeader(std::int32_t op, std::int64_t id) {
  return Number(static_cast<std::uint32_t>(op)) + Number(0) +
         Number(static_cast<std::uint64_t>(id), 8);
}

std::string StoreRecord(std::int64_t id, std::string_view data) {
  return OpHeader(kStoreOp, id) + Digest(data) + Number(data.size()) + std::string(data);
}

std::string DeleteRecord(std::int64_t id, std::string_view data) {
  return OpHeader(kDeleteOp, id) + Digest(data);
}

std::string EndRecord(std::int64_t id) {
  return OpHeader(kEndOp, id);
}

std::string StartRecord(std::int64_t id, std::string_view records, std::size_t largestBlob) {
  return OpHeader(kStartOp, id) + Number(largestBlob) + Number(records.size()) + Digest(records) +
         std::string(records);
}

JournalBytes& JournalBytes::Transaction(std::int64_t id, const std::vector<std::string>& records,
                                        std::optional<std::int64_t> endId) {
  std::string all;
  std::size_t largest = 0;
  for (const std::string& record : records) {
    all += record;
    if (record[0] == kStoreOp && record.size() > kStoreSize)
      largest = std::max(largest, record.size() - kStoreSize);
  }
  body_ += StartRecord(id, all, largest) + EndRecord(endId.value_or(id));
  count_ += static_cast<std::uint32_t>(records.size()) + 2;
  maxBlobSize_ = std::max(maxBlobSize_, largest);
  return *this;
}

std::string JournalBytes::Bytes() const {
  return Number(maxBlobSize_) + Number(count_) + Number(mode_) +
         Number(static_cast<std::uint32_t>(sequence_)) + Number(1) +
         Number(end_.value_or(kHeaderSize + body_.size())) + body_;
}

}  // namespace test
