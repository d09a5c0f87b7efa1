// Reads the committed records of a file in one pass: digests each transaction, parses its entries
// from the bytes that it digests, and accepts them once the digest matches. Up to 16 transactions
// in a row are digested side by side, which makes opening a store of many transactions several
// times as fast. Each byte is digested once.
//
// Reads as many records as the header counts, whatever its endOffset says. The first record that no
// store writes ends the replay, with a message. No length is trusted beyond the end of the file,
// and memory grows only with records that are there. A buffer that the memory manager refuses is
// tried again smaller, down to 4096 bytes.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "pack/BlobFile.h"
#include "pack/FileWindow.h"
#include "pack/RecordParser.h"
#include "pack/format/TornCommit.h"
#include "platform/Trace.h"

// Thrown if a file ends inside a record or a transaction. The text is that of the read of a single
// record.
class CutShort : public Failure {
 public:
  explicit CutShort(const Failure& read) : Failure(FailureCode::Damaged, read.what()) {}
};

struct Replayed {
  BlobFile::Entries entries;                    // of whole transactions, in the order of the file
  std::uint32_t count = 0;                      // of the records that are whole
  std::uint32_t transactionCount = 0;           // whole, behind the last lone record
  std::uint32_t end = format::kFileHeaderSize;  // where they end
  bool damaged = false;                         // not all of what the header counts is whole
  std::optional<CutShort> cutShort;             // damaged: the file ends too early
  torn::Verdict rest;                           // on the part that is not whole
};

class Replay {
 public:
  // length is the file's. Throws what File throws when it cannot be read.
  Replay(File& source, const format::FileHeader& fileHeader, std::uint32_t fileLength,
         const ProgressCall* progressCall);

  Replayed Run();

 private:
  static constexpr std::size_t kMost =
      16;  // transactions side by side: the most lanes of any processor

  // One transaction of a run.
  struct Member final : MD5Source {
    std::span<const std::uint8_t> Next() override;

    Replay* replay = nullptr;
    format::OpHeader start{};
    std::uint32_t at = 0;         // of the next piece
    std::uint32_t end = 0;        // of the digested bytes; the end record follows
    std::uint32_t pieceSize = 0;  // of its part of `pieces`
    std::size_t pieceAt = 0;
    std::optional<RecordParser> parser;
    unsigned char wanted[format::kDigestSize];
    unsigned char digest[format::kDigestSize];
  };

  bool Walk();
  bool TakeTransactions(std::uint32_t start, const format::OpHeader& record);
  void Add(std::uint32_t start, const format::OpHeader& record,
           const format::TransactionBlock& block);
  void AddFollowing();
  void Digest();
  bool Take(Member& member);
  bool EndStandsAt(std::uint32_t offset, std::int32_t left);
  bool TakeSingle(std::uint32_t start, const format::OpHeader& record);
  torn::Source Bytes();
  void MarkWhole(std::uint32_t recordCount, std::uint32_t end);
  void JudgeRest();
  void Report(std::uint32_t size);

  bool MissingRecords(std::int32_t wanted) const;
  bool Corrupt(trace::FormatFor<int, std::string> message, const format::OpHeader& record) const;
  bool UnsupportedOp(const format::OpHeader& record) const;

  const File& file;
  FileWindow window;
  const format::FileHeader header;
  const std::uint32_t length;
  const ProgressCall* const progress;
  std::uint32_t reported = 0;  // where progress was last told of
  std::uint32_t digested = 0;  // the end of the bytes digested so far, taken in order
  std::int32_t remaining;      // records that the header still counts
  Replayed result;
  std::array<Member, kMost> run;
  std::size_t runSize = 0;
  std::vector<unsigned char,
              BlobAllocator<unsigned char, TesselMemoryManager::kContainerPool, kTagBytes>>
      pieces;
};
