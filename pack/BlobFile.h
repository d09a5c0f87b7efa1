// One append-only file of blob records. Packs and journals share this class
// and every byte of the format; only the mode word differs.
//
// Commit: records count once the header that counts them has been rewritten.
// The records are flushed before it, and it is flushed before anyone is told:
// whatever part of the unflushed sectors a power cut leaves, the header on
// disk never counts a record that is not there. A journal needs one flush for
// both where the transaction lies in blank space: past the end of the file, or
// over zeros that are known to be on disk. There are no bytes that a load could
// take for records, so that a header which reached the disk without its
// transaction counts something that is plainly not there, and the load goes
// back to the transactions before it. In a journal whose file is used again,
// commits blank some of what lies ahead of them. Bytes past header.endOffset
// are leftovers that the next write covers.
//
// After a failed flush nobody knows what the disk holds: InDoubt() is true
// and nothing more is written until the file is opened anew. A header that
// this class cannot have written marks damage: nothing is written through it.
//
// Owns its File. The destructor closes it and leaves the header alone, so a
// transaction that was not ended is gone at the next load.
// Errors: what File throws passes through, and std::runtime_error of its own;
// nothing is caught for good. After a throw the file is as it was before the
// call, as far as a later load can tell, and the call can be made again.
// No locks: one caller at a time. Sizes and offsets are bytes, 32 bits.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "fs/File.h"
#include "md5/MD5.h"
#include "pack/BlobPair.h"
#include "pack/Format.h"
#include "pack/GatherBuffer.h"
#include "pack/Hash.h"
#include "pack/ProgressCall.h"
#include "platform/BlobAllocator.h"
#include "platform/BlobStoreBase.h"

class BLOBRING_EXPORT BlobFile : public BlobStoreBase {
 public:
  enum BlobFileMode : std::uint32_t { Journal = 0, Pack = 1 };

  // Where one store or delete record lies.
  struct BlobFileEntry {
    std::int32_t op = 0;  // format::kOpStore or format::kOpDelete
    std::int64_t transactionId = 0;
    std::uint32_t ordinal = 0;  // 1-based within its transaction; 0 outside one and for a fresh store
    std::uint32_t offset = 0;   // of the record's op header
    Hash hash;
    std::uint32_t size = 0;            // of the data; 0 for a delete that was loaded
    boost::shared_ptr<BlobFile> file;  // the controller's to set
    bool valid = false;                // the controller's live mark
  };
  using Entries =
      std::vector<BlobFileEntry, BlobAllocator<BlobFileEntry, TesselMemoryManager::kContainerPool, kTagEntries>>;

  BlobFile();
  // Copies path and header; the copy is closed and has no transaction.
  BlobFile(const BlobFile& other);
  BlobFile& operator=(const BlobFile& other);
  ~BlobFile() override;

  // Opens the file exclusively, creating it when it is missing, and reads its
  // header, or writes a fresh one where there is none: in an empty file and
  // in one that was cut off while it was created.
  void Init(std::string filePath, BlobFileMode fileMode, unsigned int reserved);

  void ReadHeader();

  // Writes the header and flushes; false when the flush failed.
  bool UpdateHeader();

  // Empties the file, flushed: no records, sequence -1. It keeps its length.
  bool Reset();

  // Sets the pack generation; it reaches the disk with the next header.
  void SetSequence(std::int32_t sequence);

  // Writes a start record. A transaction then runs to EndTransaction or
  // CancelTransaction.
  bool StartTransaction(long long id);

  // Appends blob and fills in entry, except for transactionId, which is read,
  // and file. Throws, before anything is written, when the file would outgrow
  // 2 GiB - 1 with its end record.
  bool Store(BlobFileEntry& entry, const BlobPair& blob);

  // Appends a delete record for entry.hash; sets op and offset.
  bool Delete(BlobFileEntry& entry);

  // Commits. When it throws and InDoubt() is false, the transaction is still
  // open and can be ended again.
  bool EndTransaction(long long id);

  // Forgets what was written since the last commit.
  void CancelTransaction();

  // Commits the header alone, with what SetSequence gave it.
  void CommitHeader();

  // Reads the store record at offset into blob (BlobPair::Read) and makes
  // sure that it is the blob that was asked for. False, after a message, when
  // there is another kind of record; throws when the blob cannot be read.
  bool GetBlob(BlobPair& blob, unsigned int offset);

  // The quick way to the same: reads into the pair's buffer, whose size must be
  // the blob's, with one platform call for a small blob and two for a large
  // one. False, without a message, for whatever is not as it should be;
  // GetBlob then finds out what it is.
  bool GetBlobQuickly(BlobPair& blob, unsigned int offset);

  // Reads size bytes at offset. False where that fails; nothing is thrown,
  // nothing reported.
  bool ReadBytes(std::uint32_t offset, unsigned char* bytes, std::uint32_t size);

  // Whether bytes begin with the head of the store record of such a blob.
  static bool IsStoreRecord(const unsigned char* record, const Hash& hash, std::uint32_t size);

  // Adds size bytes to another digest and, in the same time, brings the open
  // transaction's own up to date.
  void DigestBeside(MD5& other, const unsigned char* data, std::uint32_t size);

  // Replays the committed records and appends their entries to out, whole
  // transactions only. False, after a message, when the file is damaged; out
  // then holds what came before the damage. Throws CutShort when the file
  // ends inside a record or a transaction, and what File throws.
  bool Load(Entries& out);

  // Whether the last Load used up exactly what the header counts.
  bool LoadedAll() const;

  // Where the last whole transaction that the last Load found ends.
  std::uint32_t LoadedEnd() const { return loadedEnd; }

  // Makes the header count exactly the whole transactions that the last Load
  // found, so that the next one follows them. Where that fails, the file is
  // in doubt and can still be read.
  void KeepLoaded();

  // Flushes what may have been left unflushed by an earlier opener; where
  // that fails, the file is in doubt and the result false.
  bool Secure();

  // What the last Load found. Damage as well, though Load can go by it, is a
  // header that counts none whole of the records that it covers, and, even
  // before a Load, one that this class cannot have written.
  bool IsDamaged() const { return isDamaged || !headerSound; }

  bool InDoubt() const { return inDoubt; }

  format::FileHeader header;  // ahead of the disk while a transaction is open

 private:
  friend class Replay;

  BLOBRING_HIDDEN void RequireNotInDoubt() const;
  BLOBRING_HIDDEN void RequireWritable();
  BLOBRING_HIDDEN void RequireRoom(std::uint64_t recordSize) const;
  BLOBRING_HIDDEN void WriteAt(std::uint32_t offset, unsigned char* bytes, std::uint32_t size);
  BLOBRING_HIDDEN void Append(const unsigned char* head, std::uint32_t headSize, unsigned char* data,
                              std::uint32_t dataSize);
  BLOBRING_HIDDEN void AppendDirectly(const unsigned char* head, std::uint32_t headSize, unsigned char* data,
                                      std::uint32_t dataSize);
  BLOBRING_HIDDEN void DigestGathered();
  BLOBRING_HIDDEN void EmptyGathered();
  BLOBRING_HIDDEN void ForgetGathered();
  BLOBRING_HIDDEN void FindBlank();
  BLOBRING_HIDDEN std::uint32_t BlankBehind(std::uint32_t end, std::uint32_t from) noexcept;
  BLOBRING_HIDDEN std::uint32_t WriteEnd(long long id, const format::TransactionBlock& whole, std::uint32_t blank);
  BLOBRING_HIDDEN void Rewrite(const format::FileHeader& next);
  BLOBRING_HIDDEN void RestoreHeader();
  BLOBRING_HIDDEN void ReplayCutOff(Entries& out, std::uint32_t length);
  [[noreturn]] BLOBRING_HIDDEN void ThrowNotFlushed(const char* what, std::uint32_t code) const;
  BLOBRING_HIDDEN bool PutCommittedHeader();

  format::TransactionBlock block;
  std::uint32_t blockOffset = 0;
  MD5 md5;              // of the open transaction's records, as far as gather says
  GatherBuffer gather;  // its last bytes

 public:
  std::string path;
  File file;
  const ProgressCall* loadProgress = nullptr;  // told by Load, in bytes; null: nobody. Not copied

 private:
  format::FileHeader committed;  // as it is on disk
  BlobFileMode mode = Journal;   // what Init was told, whatever the file says
  bool digestedBeside = false;   // the key of what is stored next
  // Where the blank space ends that follows the committed records of a journal.
  std::uint32_t blankEnd = 0;
  bool headerSound = true;  // false: one that this class cannot have written
  bool inDoubt = false;
  bool isDamaged = false;
  std::uint32_t loadedCount = 0;  // what the last Load found whole: records, and where they end
  std::uint32_t loadedEnd = format::kFileHeaderSize;
};
