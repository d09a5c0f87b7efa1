// Appends the records of a transaction to a file: gathers them, keeps their digest, and decides how
// the commit must be flushed.
//
// The rules that a commit rests on. The code cites them by number.
//
//   C1  A header on disk never counts a record that is not there. The records
//       are flushed before the header is written, and the header is flushed
//       before the commit is acknowledged: two flushes.
//   C2  One flush is enough if the transaction has at most 10 records and lies
//       in blank space: bytes that this object filled with zeros and flushed, and
//       in which nothing has been written since. A sector that does not reach the
//       disk is then still zeros, which a load tells from records (TornCommit.h),
//       and the load goes back to the transactions before. Bytes past the end of a
//       file are never taken for blank: after a power cut a file system may show
//       anything there.
//   C3  A write that fails may have reached the disk. It ends the blank space
//       as far as it was meant to go, and so does what is written and then
//       dropped: a transaction that is abandoned, a record whose source fails.
//   C4  A commit that fails leaves its transaction open, and what it wrote may
//       stand there next to what the next attempt writes: that attempt takes two flushes.
//   C5  Blank space is made only in a journal, from the 33rd commit since it was
//       opened on, at most 64 KiB ahead, under a flush that the commit needs anyway.
//       An orderly close cuts it off (BlobFile::CutToRecords).
//
// Works on members of the BlobFile that owns it.
// Errors: what File and the memory manager throw. A record that could not be appended is neither
// counted nor digested; what was appended before it stays.
#pragma once

#include <cstdint>
#include <string>

#include "fs/File.h"
#include "md5/MD5.h"
#include "pack/GatherBuffer.h"
#include "pack/PieceCalls.h"
#include "pack/format/Format.h"

class RecordWriter {
 public:
  RecordWriter(File& target, format::FileHeader& fileHeader,
               format::TransactionBlock& transactionBlock, std::uint32_t& transactionBlockOffset,
               MD5& transactionDigest);
  RecordWriter(const RecordWriter&) = delete;
  RecordWriter& operator=(const RecordWriter&) = delete;

  // The file was opened, emptied or replayed: nothing is gathered and no space is blank. A journal
  // keeps its buffer between transactions; a pack takes only one.
  void Restart(bool forJournal);

  // Gathers a start record.
  void Begin(long long id);

  // Gathers a store or delete record and counts it in the header. Data larger than mostGathered is
  // written from where it lies, after what was gathered.
  void Append(const format::RecordHeader& record, unsigned char* data, std::uint32_t mostGathered);

  // Writes what is gathered, then a store record whose data comes from a source, through `buffer`,
  // and counts it. Throws also what the source throws and, when its bytes do not match the record's
  // hash, Failure; what had been written is then cut off.
  void AppendFrom(const format::RecordHeader& record, PieceSource& source,
                  std::span<unsigned char> buffer);

  // Drops the last record, which could not be written.
  void UndoAppend(const format::FileHeader& before);

  // Writes what is gathered, in one call.
  void WriteOut();
  bool HasMadeBlank() const { return hasMadeBlank; }

  // See BlobFile::DigestBeside.
  void DigestBeside(MD5& other, const unsigned char* data, std::uint32_t size);

  // Writes the end of the transaction, all but the header, and sets next to the header that commits
  // it. Returns true if the records must be flushed before that header [C1], false in blank space
  // [C2].
  bool WriteEnd(long long id, format::FileHeader& next);
  // Afterwards, one of: the header is on disk, or the transaction is still open.
  void Committed();
  void NotCommitted();

  // Forgets the transaction. The header is that of the last commit again.
  void Abandon();

 private:
  void Write(std::uint32_t offset, const unsigned char* bytes, std::uint32_t size);
  MD5 WriteFrom(const format::RecordHeader& record, PieceSource& source,
                std::span<unsigned char> buffer);
  void CutOff() noexcept;
  void DigestGathered();
  void EmptyGathered();
  void MakeBlankAhead(std::uint32_t end) noexcept;
  void ReleaseMemory();

  File& file;
  format::FileHeader& header;
  format::TransactionBlock& block;
  std::uint32_t& blockOffset;
  MD5& md5;
  GatherBuffer gather;  // the last bytes of the open transaction

  bool isJournal = false;

  // [blankBegin, blankEnd) is blank. Where something was written past the committed records,
  // blankBegin lies behind it [C3].
  std::uint32_t blankBegin = 0;
  std::uint32_t blankEnd = 0;
  std::uint32_t zerosEnd = 0;     // what blankEnd becomes with the commit
  bool beganInBlank = false;      // of the open transaction; a failed write ends it
  std::uint32_t countBefore = 0;  // the records before it
  std::uint32_t commitCount = 0;  // since Restart
  bool hasMadeBlank = false;      // or tried to
  bool mayMakeBlank = true;       // until that fails
};
