// The one reader of the records that the header of a pack or journal counts: a load, the tool's
// views and salvage follow a file with it, so that what is damage to one is damage to all.
//
// Reads in one pass: digests each transaction, parses its records from the bytes that it digests,
// and tells of them once the digest matches. Up to 16 transactions in a row are digested side by
// side, which makes opening a store of many transactions several times as fast. Each byte is
// digested once.
//
// Reads as many records as the header counts, whatever its endOffset says. The first record that no
// store writes ends the reading. No length is trusted beyond the end of the file.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>

#include "md5/MD5.h"
#include "pack/format/ByteSource.h"
#include "pack/format/RecordParser.h"
#include "pack/format/TornCommit.h"

namespace format {

struct Transaction : StartRecord {
  std::uint64_t offset = 0;  // of the start record
  std::uint64_t storeCount = 0;
  std::uint64_t deleteCount = 0;
  std::uint64_t blobBytes = 0;  // of its stores

  std::uint64_t BodyOffset() const { return offset + kStartSize; }
  std::uint64_t BodyEnd() const { return BodyOffset() + block.length; }
  std::uint64_t End() const { return BodyEnd() + kEndSize; }
  std::uint64_t RecordCount() const { return storeCount + deleteCount + 2; }
};

// Why reading ended before the header's count did.
struct Break {
  enum class Cause {
    kNone,
    kCount,     // the header counts more than any file has
    kFileEnds,  // before a record, or inside of one
    kNotEnded,  // a transaction without a length
    kDigest,    // of a transaction
    kOp,        // a record that has no place here
    kTooLong,   // a record that runs past its transaction, or past the file
    kHash,      // of a record outside any transaction
  };
  enum class Place {
    kOutside,  // where a transaction may begin
    kStart,    // of a transaction
    kBody,     // of a transaction
    kEnd,      // of a transaction
    kSingle,   // in a record outside any transaction
  };

  explicit operator bool() const { return cause != Cause::kNone; }
  // kFileEnds: whether it does so inside of a record or transaction.
  bool IsInside() const {
    return cause == Cause::kFileEnds &&
           (got != 0 || (place != Place::kOutside && place != Place::kEnd));
  }

  Cause cause = Cause::kNone;
  Place place = Place::kOutside;
  std::uint64_t offset = 0;  // of the record
  OpHeader record{};         // of the record, or of the start of its transaction for kTooLong
  std::int64_t missing = 0;  // records that the header counts from there on
  std::uint32_t wanted = 0;  // kFileEnds: bytes that a reader of single records reads next,
  std::uint32_t got = 0;     // and how many of them there are
};

struct ReadResult {
  std::uint64_t end = kFileHeaderSize;  // of the whole transactions
  std::uint64_t recordCount = 0;        // in them
  std::uint64_t transactionsAtEnd = 0;  // whole ones, behind the last record outside any
  std::int64_t remaining = 0;           // records that the header counts more
  std::int64_t leftOut = 0;             // of a transaction in which the count ends
  Break broken;
  // kDigest: what else is wrong with the transaction, or the transaction if that is all and the
  // header counts all of it.
  Break beneath;
  std::optional<Transaction> mismatched;
};

// Hears what a reader finds.
class ReadListener {
 public:
  // A record of the transaction in this lane. It counts once its transaction is whole.
  virtual void OnRecord(std::size_t /*lane*/, const Record& /*record*/) {}
  // The transaction in this lane is whole; it follows those told of before. Ends the lane.
  virtual void OnTransaction(std::size_t lane, const Transaction& transaction) = 0;
  // A record outside any transaction. No store writes one.
  virtual void OnSingle(const Record& record) = 0;
  // The end of what has been digested.
  virtual void OnDigested(std::uint64_t /*end*/) {}
  // Lends memory for reading transactions side by side, until the reader goes. Null where there is
  // none: they are then read one by one.
  virtual unsigned char* Lend(std::size_t size) = 0;

 protected:
  ~ReadListener() = default;
};

class RecordReader {
 public:
  static constexpr std::size_t kMost = 16;  // the most lanes of any processor
  // kIgnore: the structure alone counts, and data is not read. kLast: the same, but for what a
  // power cut can tear (TornCommit.h), a short transaction at the end.
  enum class Digests { kCompare, kIgnore, kLast };

  RecordReader(ByteSource& bytes, const FileHeader& fileHeader, ReadListener& hears,
               Digests compared = Digests::kCompare);

  // Throws what the source and the listener throw.
  ReadResult Run();

  // On the part of a journal that Run() found not to be whole.
  torn::Verdict JudgeRest();

 private:
  // One transaction of a run.
  struct Lane final : MD5Source {
    std::span<const std::uint8_t> Next() override;

    RecordReader* reader = nullptr;
    std::size_t index = 0;
    Transaction transaction;
    RecordParser parser;
    std::uint64_t at = 0;  // of the next piece
    unsigned char* piece = nullptr;
    std::uint32_t pieceSize = 0;
    unsigned char digest[kDigestSize];
  };

  bool ReadNext();
  bool ReadTransactions(std::uint64_t start, const OpHeader& record);
  void AddLane(std::uint64_t start, const StartRecord& record);
  void AddFollowing();
  bool IsCompared(const Transaction& transaction) const;
  void Digest();
  void Parse(Lane& lane, const Record& record);
  bool Accept(const Lane& lane);
  Break BreakIn(const Lane& lane, std::int64_t left);
  bool ReadSingle(std::uint64_t start, const OpHeader& record);
  bool Fail(const Break& broken);
  bool FileEnds(Break::Place place, std::uint64_t offset, std::uint64_t wanted, std::uint64_t got);

  ByteSource& source;
  const FileHeader header;
  const std::uint64_t length;
  ReadListener& listener;
  const Digests digests;
  ReadResult result;
  std::array<Lane, kMost> lanes;
  std::size_t laneCount = 0;
  unsigned char* pieces = nullptr;
  std::size_t piecesSize = 0;
  std::uint64_t digested = 0;
};

// The records between two offsets in their order, up to the first that is not whole or none, until
// `visit` returns false. Data is skipped.
void VisitRecords(ByteSource& source, std::uint64_t begin, std::uint64_t end,
                  const std::function<bool(const Record&)>& visit);

}  // namespace format
