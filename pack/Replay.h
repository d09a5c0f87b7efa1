// One pass over the committed records of a file: digests each transaction,
// takes its entries from the very bytes that it digests, and believes them
// once the digest has been confirmed.
//
// Transactions are digested many at a time while nothing is amiss; the first
// one that has anything wrong with it is looked at once more by itself, and
// so is all that follows it.
//
// What a store writes is read exactly as far as the header counts. Whatever
// else a file holds ends the replay: no length is trusted beyond the end of
// the file, no byte is looked at more than twice, and memory grows with the
// records that are really there.
#pragma once

#include <cstdint>
#include <optional>

#include "pack/BlobFile.h"
#include "pack/LoadProgress.h"

class FileScanner;
class TransactionRun;

class Replay {
 public:
  // Appends to out; length is that of the file. All must outlive the replay.
  Replay(BlobFile& target, BlobFile::Entries& out, std::uint32_t length);

  // As BlobFile::Load. Records in target how far it got.
  bool Run();

 private:
  bool TakeMany(FileScanner& scanner, std::optional<TransactionRun>& run);
  bool Step(FileScanner& scanner, std::uint32_t offset, const format::OpHeader& record);
  bool Transaction(FileScanner& scanner, const format::OpHeader& start);
  bool Single(FileScanner& scanner, std::uint32_t offset, const format::OpHeader& record);
  bool End(FileScanner& scanner);
  bool MissingRecords(std::int32_t wanted) const;
  bool OpenTransaction(std::size_t entries) const;
  bool Corrupt(const char* what, std::int64_t transactionId) const;
  bool UnsupportedOp(std::int32_t op) const;
  void MarkWhole(std::uint32_t end);

  BlobFile& target;
  BlobFile::Entries& out;
  const std::uint32_t length;
  std::int32_t remaining;
  LoadProgress progress;
};
