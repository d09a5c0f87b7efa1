#include "tests/support/JournalBytes.h"

#include <algorithm>

#include "tests/support/OpenedStore.h"

namespace test {

namespace {

std::string Number(std::uint64_t value, int bytes) {
  std::string text;
  for (int i = 0; i < bytes; ++i) text.push_back(static_cast<char>(value >> (8 * i)));
  return text;
}

std::string Digest(std::string_view data) {
  const HashBytes hash = HashOf(data);
  return {hash.begin(), hash.end()};
}

// Of the store records among these bytes, one after another.
std::uint32_t LargestBlob(const std::string& record) {
  return record.size() >= 36 && record[0] == 0 ? static_cast<std::uint32_t>(record.size()) - 36 : 0;
}

std::string StartWith(std::int64_t id, std::uint32_t largest, std::string_view records) {
  return OpHeader(2, id) + Number(largest, 4) + Number(records.size(), 4) + Digest(records) +
         std::string(records);
}

}  // namespace

std::string Hex(std::string_view digits) {
  std::string bytes;
  int high = -1;
  for (const char c : digits) {
    if (c == ' ') continue;
    const int value = c <= '9' ? c - '0' : c - 'a' + 10;
    if (high < 0) {
      high = value;
    } else {
      bytes.push_back(static_cast<char>(high << 4 | value));
      high = -1;
    }
  }
  return bytes;
}

std::string With(std::string text, std::size_t at, std::string_view bytes) {
  return text.replace(at, bytes.size(), bytes);
}

std::string OpHeader(std::int32_t op, std::int64_t id) {
  return Number(static_cast<std::uint32_t>(op), 4) + Number(0, 4) +
         Number(static_cast<std::uint64_t>(id), 8);
}

std::string StoreRecord(std::int64_t id, std::string_view data) {
  return OpHeader(0, id) + Digest(data) + Number(data.size(), 4) + std::string(data);
}

std::string DeleteRecord(std::int64_t id, std::string_view data) {
  return OpHeader(1, id) + Digest(data);
}

std::string EndRecord(std::int64_t id) {
  return OpHeader(3, id);
}

std::string StartRecord(std::int64_t id, std::string_view records) {
  return StartWith(id, LargestBlob(std::string(records)), records);
}

JournalBytes::JournalBytes(std::uint32_t fileMode, std::int32_t packSequence)
    : mode(fileMode), sequence(packSequence) {}

JournalBytes& JournalBytes::Transaction(std::int64_t id, const std::vector<std::string>& records,
                                        std::optional<std::int64_t> endId) {
  std::string all;
  std::uint32_t largest = 0;
  for (const std::string& record : records) {
    all += record;
    largest = std::max(largest, LargestBlob(record));
  }
  body += StartWith(id, largest, all) + EndRecord(endId.value_or(id));
  count += static_cast<std::uint32_t>(records.size()) + 2;
  maxBlobSize = std::max(maxBlobSize, largest);
  return *this;
}

JournalBytes& JournalBytes::Raw(std::string_view bytes) {
  body += bytes;
  return *this;
}

JournalBytes& JournalBytes::Counting(std::uint32_t more) {
  count += more;
  return *this;
}

JournalBytes& JournalBytes::Count(std::uint32_t exactly) {
  count = exactly;
  return *this;
}

JournalBytes& JournalBytes::End(std::uint32_t offset) {
  end = offset;
  return *this;
}

JournalBytes& JournalBytes::MaxBlobSize(std::uint32_t size) {
  maxBlobSize = size;
  return *this;
}

std::string JournalBytes::Bytes() const {
  return Number(maxBlobSize, 4) + Number(count, 4) + Number(mode, 4) +
         Number(static_cast<std::uint32_t>(sequence), 4) + Number(1, 4) +
         Number(end.value_or(static_cast<std::uint32_t>(24 + body.size())), 4) + body;
}

}  // namespace test
