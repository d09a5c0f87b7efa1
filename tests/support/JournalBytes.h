// Pack and journal files put together by hand, good ones and others: an account of the format that
// is independent of the code under test but for the digest.
#pragma once

#include <blobring/blobring.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace test {

enum Op : std::uint32_t { kStoreOp, kDeleteOp, kStartOp, kEndOp };
// The file header, what every record begins with, and the heads of records.
constexpr std::size_t kHeaderSize = 24, kOpSize = 16, kDeleteSize = 32, kStoreSize = 36,
                      kStartSize = 40;

// Little-endian.
std::uint32_t Get32(std::string_view bytes, std::size_t at);
void Put32(std::string& bytes, std::size_t at, std::size_t value);  // its low 32 bits

using HashBytes = std::array<unsigned char, BLOBRING_HASH_SIZE>;
HashBytes HashOf(std::string_view data);
std::string Digest(std::string_view bytes);  // the same

// Bytes from hexadecimal digits; blanks are ignored.
std::string Hex(std::string_view digits);

// text with its bytes from `at` on replaced.
std::string With(std::string text, std::size_t at, std::string_view bytes);

std::string OpHeader(std::int32_t op, std::int64_t id);
std::string StoreRecord(std::int64_t id, std::string_view data);
std::string DeleteRecord(std::int64_t id, std::string_view data);
std::string EndRecord(std::int64_t id);
// With a block that is right for these records, which follow it.
std::string StartRecord(std::int64_t id, std::string_view records, std::size_t largestBlob = 0);

class JournalBytes {
 public:
  explicit JournalBytes(std::uint32_t mode = 0, std::int32_t sequence = 0)
      : mode_(mode), sequence_(sequence) {}

  JournalBytes& Transaction(std::int64_t id, const std::vector<std::string>& records,
                            std::optional<std::int64_t> endId = std::nullopt);
  JournalBytes& Raw(std::string_view bytes) { return body_ += bytes, *this; }  // not counted
  JournalBytes& Count(std::uint32_t exactly) { return count_ = exactly, *this; }
  JournalBytes& End(std::uint32_t offset) { return end_ = offset, *this; }  // not the right one

  std::string Bytes() const;

 private:
  std::uint32_t mode_;
  std::int32_t sequence_;
  std::uint32_t count_ = 0;
  std::size_t maxBlobSize_ = 1024;
  std::optional<std::size_t> end_;
  std::string body_;
};

}  // namespace test
