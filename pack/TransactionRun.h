// Transactions that follow one another in a file, digested side by side, which
// makes opening a store of many transactions several times as fast.
//
// It tells what is whole, and of the rest not what is wrong with it: that is
// for a reader who takes one transaction after the other to find out.
//
// Errors: what the file and the memory manager throw passes through, and then
// nothing counts. Memory: 1 MiB, never more than the transactions take, and
// their entries.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "md5/MD5.h"
#include "pack/BlobFile.h"
#include "pack/FileScanner.h"
#include "pack/LoadProgress.h"
#include "pack/RecordParser.h"

class TransactionRun {
 public:
  static constexpr std::size_t kMost = 16;  // transactions; the most lanes of any processor

  TransactionRun(FileScanner& fileScanner, LoadProgress& loadProgress);
  TransactionRun(const TransactionRun&) = delete;
  TransactionRun& operator=(const TransactionRun&) = delete;

  // Looks from the scanner's position on for transactions that lie before end,
  // each with its end record in its place and of at least three of remaining
  // records in all. Gives their number; fewer than two may mean that the next one
  // has to be looked at by itself. Leaves the scanner's position.
  std::size_t Find(std::uint32_t end, std::int32_t remaining);

  // Reads what was found.
  void Digest();

  // Whether transaction i was read as it was written and holds whole records
  // alone, which with its start and its end are no more than remaining.
  bool IsWhole(std::size_t i, std::int32_t remaining) const;

  // Of transaction i: its records between start and end, which are then the
  // caller's, and where its end record ends.
  BlobFile::Entries TakeEntries(std::size_t i) { return std::move(found[i].entries); }
  std::uint32_t EndOf(std::size_t i) const { return found[i].end + format::kEndSize; }

 private:
  struct Member final : MD5Source {
    std::span<const std::uint8_t> Next() override;

    TransactionRun* run = nullptr;
    std::uint32_t at = 0;   // of the next piece
    std::uint32_t end = 0;  // of the bytes that are digested; the end record follows
    std::uint32_t pieceRoom = 0;
    std::size_t pieceAt = 0;  // in the run's pieces
    std::int32_t recordLimit = 0;
    std::optional<RecordParser> parser;
    BlobFile::Entries entries;
    unsigned char wanted[format::kDigestSize];
    unsigned char digest[format::kDigestSize];
  };

  void Add(std::uint32_t start, const format::TransactionBlock& block, std::int32_t remaining);

  FileScanner& scanner;
  LoadProgress& progress;
  std::array<Member, kMost> found;
  std::size_t count = 0;
  std::vector<unsigned char, BlobAllocator<unsigned char, TesselMemoryManager::kContainerPool, kTagBytes>> pieces;
  std::uint32_t digested = 0;  // where the bytes digested so far would end if they came in order
};
