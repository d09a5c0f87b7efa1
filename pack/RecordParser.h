// Parses the store and delete records of one transaction, whose bytes come in pieces of any size.
// Trusts no length: data is skipped, not copied, and memory grows with complete records only.
#pragma once

#include <cstdint>
#include <span>

#include "pack/BlobFile.h"
#include "pack/format/Format.h"

// The entry of a record that lies at offset.
BlobFile::BlobFileEntry EntryOf(const format::RecordHead& record, std::uint32_t offset,
                                std::uint32_t ordinal);

class RecordParser {
 public:
  // The first byte lies at offset in the file.
  explicit RecordParser(std::uint32_t offset) : recordOffset(offset) {}

  void Feed(std::span<const unsigned char> bytes);

  // The complete records so far, up to the first that no transaction holds.
  BlobFile::Entries entries;
  bool FoundBadRecord() const { return foundBadRecord; }
  const format::OpHeader& BadRecord() const { return op; }
  // True between two records.
  bool AtBoundary() const { return filled == 0 && dataLeft == 0; }

 private:
  void HeadFilled();

  std::uint32_t recordOffset;
  unsigned char head[format::kStoreHeadSize];
  std::uint32_t filled = 0;                      // bytes of head so far
  std::uint32_t wanted = format::kOpHeaderSize;  // bytes of head before the next decision
  std::uint32_t dataLeft = 0;                    // bytes to skip
  format::OpHeader op{};
  bool foundBadRecord = false;
};
