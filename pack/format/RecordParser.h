// Parses the store and delete records of one transaction, whose bytes come in pieces of any size.
// Trusts no length: data is skipped, not copied, and nothing is kept but the record at hand.
#pragma once

#include <cstdint>
#include <span>

#include "pack/format/Format.h"

namespace format {

// A store or delete record, and where it lies.
struct Record : RecordHeader {
  std::uint64_t offset = 0;  // of its op header

  bool IsStore() const { return op.op == kOpStore; }
  std::uint64_t DataOffset() const { return offset + kStoreHeaderSize; }
  std::uint64_t End() const { return IsStore() ? DataOffset() + size : offset + kDeleteSize; }
};

class RecordParser {
 public:
  RecordParser() = default;
  // The first byte lies at offset in the file.
  explicit RecordParser(std::uint64_t offset) : position(offset), record{{}, offset} {}

  // Hands each record over once its header is there; its data may be missing.
  template <class Visit>
  void Feed(std::span<const unsigned char> bytes, const Visit& visit) {
    while (!foundBadRecord && Fill(bytes)) {
      visit(static_cast<const Record&>(record));
      NextRecord();
    }
  }

  // Skips up to `most` bytes that no record needs to be parsed. Returns how many.
  std::uint64_t Skip(std::uint64_t most);

  // Of the next byte.
  std::uint64_t Position() const { return position; }

  // True at a record that no transaction holds. It is parsed no further.
  bool FoundBadRecord() const { return foundBadRecord; }
  const OpHeader& BadRecord() const { return record.op; }
  // Of the record that is not complete yet; at a boundary, of the next one.
  std::uint64_t RecordOffset() const { return dataLeft > 0 ? lastOffset : record.offset; }
  // True between two records.
  bool AtBoundary() const { return filled == 0 && dataLeft == 0; }

 private:
  // Whether a header is complete.
  bool Fill(std::span<const unsigned char>& bytes);
  void NextRecord();

  std::uint64_t position = 0;
  Record record;
  std::uint64_t lastOffset = 0;  // of the record before
  unsigned char header[kStoreHeaderSize];
  std::uint32_t filled = 0;              // bytes of header so far
  std::uint32_t wanted = kOpHeaderSize;  // bytes of header before the next decision
  std::uint32_t dataLeft = 0;            // bytes to skip
  bool foundBadRecord = false;
};

}  // namespace format
