// Pack and journal files put together by hand, good ones and others: an
// account of the format that is independent of the code under test but for
// the digest.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace test {

// Bytes from hexadecimal digits; blanks are ignored.
std::string Hex(std::string_view digits);

// text with its bytes from `at` on replaced.
std::string With(std::string text, std::size_t at, std::string_view bytes);

std::string OpHeader(std::int32_t op, std::int64_t id);
std::string StoreRecord(std::int64_t id, std::string_view data);
std::string DeleteRecord(std::int64_t id, std::string_view data);
std::string EndRecord(std::int64_t id);
// With a block that is right for these records, which follow it.
std::string StartRecord(std::int64_t id, std::string_view records);

class JournalBytes {
 public:
  explicit JournalBytes(std::uint32_t fileMode = 0, std::int32_t packSequence = 0);

  JournalBytes& Transaction(std::int64_t id, const std::vector<std::string>& records,
                            std::optional<std::int64_t> endId = std::nullopt);
  JournalBytes& Raw(std::string_view bytes);   // not counted
  JournalBytes& Counting(std::uint32_t more);  // counts so many records more
  JournalBytes& Count(std::uint32_t exactly);
  JournalBytes& End(std::uint32_t offset);  // instead of the right one
  JournalBytes& MaxBlobSize(std::uint32_t size);

  std::string Bytes() const;

 private:
  std::uint32_t mode;
  std::int32_t sequence;
  std::uint32_t count = 0;
  std::uint32_t maxBlobSize = 1024;
  std::optional<std::uint32_t> end;
  std::string body;
};

}  // namespace test
