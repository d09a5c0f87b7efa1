// Whether the end of a journal that is not whole is a commit that a power cut tore. Otherwise it is
// damage.
//
// A header counts records that are not on disk only after a commit that took one flush. By the
// rules C1 to C5 (RecordWriter.h) all of this then holds:
//
//   T1  The file reaches to the header's endOffset: the transaction lay in blank space.
//   T2  At least 33 whole transactions stand before it, and nothing else between them.
//   T3  All that is not whole is one transaction. It ends at endOffset, has the records that the
//       header counts behind the whole ones, at most 10, and takes at most 64 KiB.
//   T4  What is lost of it reads as zeros: in a 512-byte sector of the file, all that the
//       transaction has there, or all from the end of one of its records on, if later ones were
//       written after the sector reached the disk. A sector with a part of the finished block
//       lacks nothing.
//   T5  What is there is as it was written: the start and end records, and from the start on, for
//       as long as their sizes tell where the next one lies, the records and the hashes of their
//       data. Data that has lost a sector cannot be compared.
//
// Bytes that were lost later, in the last transaction alone, may fit all of that as well.
#pragma once

#include <cstdint>

#include "pack/format/ByteSource.h"

namespace torn {

inline constexpr const char* kText =
    "the last transaction is incomplete: a power cut interrupted its commit, or these bytes were "
    "lost later";

// What a journal's header counts behind the whole transactions.
struct Rest {
  std::uint64_t fileSize;           // bytes
  std::uint64_t wholeTransactions;  // before it, with no record outside of them between
  std::uint64_t begin;              // where they end
  std::uint64_t end;                // the header's endOffset
  std::uint64_t records;            // that the header counts from there on
};

struct Verdict {
  bool isTorn = false;
  bool wholeBehind = false;  // damage with a whole transaction behind it, at the end
};
// Digests at most four times as many bytes as there are. Throws what the source throws.
Verdict Judge(const Rest& rest, format::ByteSource& source);

// So many transactions may be lost with these records; 1 may always be.
constexpr std::uint64_t MostTransactions(std::uint64_t records) {
  return records < 6 ? 1 : records / 3;
}

}  // namespace torn
