// Takes the store and delete records of one transaction from its bytes, which
// come in pieces of any size. It believes no length: data is skipped, never
// copied, and memory grows with the records that have been seen whole.
#pragma once

#include <cstdint>
#include <span>

#include "pack/BlobFile.h"
#include "pack/Format.h"

class RecordParser {
 public:
  enum class Stop {
    None,       // so far only records, each of them whole or in progress
    CountUsed,  // the header counts no further record
    BadRecord,  // a record that no transaction holds; Op() and Id() tell which
  };

  // Appends entries to out and takes one from remaining for each record. The
  // first byte lies at offset in the file.
  RecordParser(BlobFile::Entries& entries, std::int32_t& remainingRecords, std::uint32_t offset);

  void Feed(std::span<const unsigned char> bytes);

  Stop Stopped() const { return stop; }
  // Whether no record has been begun that is not complete.
  bool AtBoundary() const { return filled == 0 && dataLeft == 0; }
  std::int32_t Op() const { return op.op; }
  std::int64_t Id() const { return op.transactionId; }

 private:
  void HeadFilled();
  void Complete(std::uint32_t size);

  BlobFile::Entries& out;
  std::int32_t& remaining;
  std::uint32_t recordOffset;
  std::uint32_t ordinal = 0;
  unsigned char head[format::kStoreHeadSize];
  std::uint32_t filled = 0;                      // bytes of head so far
  std::uint32_t wanted = format::kOpHeaderSize;  // bytes of head before the next decision
  std::uint32_t dataLeft = 0;                    // bytes to skip
  format::OpHeader op{};
  Stop stop = Stop::None;
};
