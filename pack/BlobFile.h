// One append-only file of blob records. Packs and journals share this class and every byte of the
// format; only the mode word differs.
//
// A record counts once the header that counts it is on disk. RecordWriter says how a commit gets
// there: rules C1 to C5. Bytes past header.endOffset are leftovers that the next write covers; no
// reader looks at them.
//
//   Clean ──StartTransaction──▶ InTransaction ──EndTransaction, Abandon…──▶ Clean
//   any ──a flush fails──▶ InDoubt              until Init
//   Clean ──ReadHeader, Load──▶ Damaged         until Reset or KeepLoaded
//
// InDoubt: what the disk holds is unknown; nothing more is written. Damaged: the header is not one
// that this class writes, or does not count what is there; nothing is written through it. Files in
// either state can be read.
//
// Owns its File. The destructor closes it and leaves the header alone, so a transaction that was
// not ended is gone at the next load.
// Errors: what File throws passes through, and Failure of its own. After a throw the file is, to a
// later load, as it was before the call, and the call can be repeated.
// No locks: one caller at a time. While that one neither opens nor closes the file, any number of
// threads may call GetBlob, ReadBlob, DecodeBlob, RequireBlob, InDoubt and file.readSome.
// Sizes and offsets are bytes, 32 bits.
#pragma once

#include <algorithm>
#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "fs/File.h"
#include "md5/MD5.h"
#include "pack/BlobPair.h"
#include "pack/Hash.h"
#include "pack/ProgressCall.h"
#include "pack/RecordWriter.h"
#include "pack/format/Format.h"
#include "pack/format/TornCommit.h"
#include "platform/BlobAllocator.h"
#include "platform/BlobStoreBase.h"

class BLOBRING_EXPORT BlobFile : public BlobStoreBase {
 public:
  enum BlobFileMode : std::uint32_t { Journal = 0, Pack = 1 };
  enum class State { Clean, InTransaction, InDoubt, Damaged };

  // A flag that any thread may read and set.
  class Mark {
   public:
    Mark(bool isSet = false) : set(isSet) {}  // NOLINT(google-explicit-constructor): it is a bool
    Mark(const Mark& other) : set(static_cast<bool>(other)) {}
    Mark& operator=(const Mark& other) {
      set.store(other, std::memory_order_relaxed);
      return *this;
    }
    operator bool() const {  // NOLINT(google-explicit-constructor)
      return set.load(std::memory_order_relaxed);
    }

   private:
    std::atomic<bool> set;
  };

  // Where one store or delete record lies. A move copies.
  struct BlobFileEntry {
    BlobFileEntry() = default;
    BlobFileEntry(const BlobFileEntry&) = default;
    BlobFileEntry& operator=(const BlobFileEntry&) = default;

    std::int32_t op = 0;  // format::kOpStore or format::kOpDelete
    std::int64_t transactionId = 0;
    // 1-based within its transaction; 0 outside one and for a fresh store.
    std::uint32_t ordinal = 0;
    std::uint32_t offset = 0;  // of the record's op header
    Hash hash;
    std::uint32_t size = 0;            // of the data; 0 for a delete that was loaded
    boost::shared_ptr<BlobFile> file;  // the controller's to set
    Mark valid;                        // the controller's
  };
  using Entries =
      std::vector<BlobFileEntry,
                  BlobAllocator<BlobFileEntry, TesselMemoryManager::kContainerPool, kTagEntries>>;

  BlobFile();
  // Copies path and header; the copy is closed and has no transaction.
  BlobFile(const BlobFile& other);
  BlobFile& operator=(const BlobFile& other);
  ~BlobFile() override;

  // Opens the file exclusively, creates it if it is missing, and reads its header. Writes a fresh
  // one, flushed, into an empty file and into one that was cut off while it was created: at most 24
  // bytes that are all zeros, or the beginning of a fresh header. Any other file too short for a
  // header throws.
  void Init(std::string filePath, BlobFileMode fileMode, unsigned int reserved);

  // Creates the file, which must not exist, empty and with sequence -1, flushed.
  void Create(const std::string& filePath, BlobFileMode fileMode);

  // Gives the open file another name in one step, whatever has it.
  void Replace(const std::string& target);

  // Opens an existing file for reading only. An empty or cut-off one counts as one with a fresh
  // header.
  void InitReadOnly(const std::string& filePath, BlobFileMode fileMode);

  void ReadHeader();

  // Writes the header and flushes; false when the flush failed.
  bool UpdateHeader();

  // Empties the file, flushed: no records, sequence -1. It keeps its length.
  bool Reset();

  // Writes a start record. A transaction then runs to EndTransaction or AbandonTransaction.
  bool StartTransaction(long long id);

  // Appends blob and fills in entry, except for transactionId, which is read, and file. Throws,
  // before anything is written, when the file would outgrow 2 GiB - 1 with its end record; a
  // journal keeps room for 64 deletes as well.
  bool Store(BlobFileEntry& entry, const BlobPair& blob);

  // Appends a delete record for entry.hash; sets op and offset.
  bool Delete(BlobFileEntry& entry);

  // StartTransaction, Store and Delete, but the records may stay in memory until the next call that
  // writes.
  void BeginTransaction(long long id);
  void Gather(BlobFileEntry& entry, const BlobPair& blob);
  void GatherDelete(BlobFileEntry& entry);

  // Store of a blob that comes from a source, through `buffer`. Throws also what the source throws
  // and, when its bytes do not match the hash, Failure.
  void StoreFrom(BlobFileEntry& entry, const Hash& hash, PieceSource& source,
                 std::span<unsigned char> buffer);

  // Adds data to another digest and, side by side with it, the waiting records to the transaction's
  // own.
  void DigestBeside(MD5& other, const unsigned char* data, std::uint32_t size) {
    writer.DigestBeside(other, data, size);
  }

  // Commits. If it throws and the state is not InDoubt, the transaction is still open and can be
  // ended again.
  bool EndTransaction(long long id);

  // Forgets what was written since the last commit.
  void AbandonTransaction();

  // Sets the pack generation; it reaches the disk with the next header.
  void SetSequence(std::int32_t sequence) { header.sequence = sequence; }

  // Commits the header alone, with what SetSequence gave it.
  void CommitHeader();

  // Reads the store record at offset, which is in the file, into blob, whose buffer must hold it.
  // Sets the pair's hash to the record's: a caller that wants a certain blob compares. False, after
  // a message, when there is another kind of record; throws when the blob cannot be read or does
  // not match its hash. See BlobPair::Read.
  bool GetBlob(BlobPair& blob, unsigned int offset);

  // The second step of it, for a reader of many records, which has read this one or a part of it.
  bool DecodeBlob(BlobPair& blob, unsigned int offset, const BytesRead& record,
                  BlobPair::Patience patience) const;

  // Throws if the record that was read is not that of the wanted blob, of wantedSize bytes.
  void RequireBlob(const BlobPair& read, unsigned int offset, const Hash& wanted,
                   std::uint32_t wantedSize) const;

  // GetBlob, with or without waiting for a size that does not fit.
  bool ReadBlob(BlobPair& blob, unsigned int offset, BlobPair::Patience patience) const;

  // Replays the committed records and appends their entries to out, whole transactions only. False,
  // after a message, when the file is damaged; out then holds what came before the damage. Throws
  // what File throws: where the file ends inside a record or a transaction, as its read does.
  bool Load(Entries& out);

  // The same, but such an end is one of the damages. CutShort() is then the text of the read.
  bool LoadRecords(Entries& out);
  const std::string& CutShort() const { return loaded.cutShort; }

  // Load reports its progress to it, in bytes.
  void SetProgress(const ProgressCall* call) { loadProgress = call; }

  // The last Load found exactly what the header counts.
  bool LoadedAll() const;
  // It found all but the last transaction, of which a power cut can have left what there is
  // (TornCommit.h).
  bool LastIsTorn() const { return loaded.rest.isTorn; }
  // It found damage with a whole transaction behind.
  bool WholeBehind() const { return loaded.rest.wholeBehind; }
  // The records that the header counts and it did not find.
  std::uint32_t MissingRecords() const {
    return header.recordCount - std::min(loaded.count, header.recordCount);
  }
  // Where the last whole transaction ends.
  std::uint32_t LoadedEnd() const { return loaded.end; }
  // Where the records that the header counts end: at the end of the file if that is damaged.
  std::uint32_t CoveredEnd() const;

  // Makes the header count exactly what the last Load found, so that the next transaction follows
  // it. The sequence replaces that of a damaged header. On failure the file is in doubt.
  void KeepLoaded(std::int32_t sequence);

  // Flushes what an earlier opener may have left unflushed. On failure returns false and the file
  // is in doubt.
  bool MakeDurable();

  // Cuts off what lies behind the records, if the file is sound and CutOnClose was called, blank
  // space was made, or a write or transaction came to nothing. Call it before closing the file.
  void CutToRecords() noexcept;
  void CutOnClose() { cutOnClose = true; }

  // Changes when records that were there may be overwritten. The owner guards it.
  std::uint32_t Life() const { return life; }
  void EndLife() { ++life; }

  bool InDoubt() const { return state == State::InDoubt; }
  bool IsDamaged() const { return state == State::Damaged; }
  void MarkDamaged() { state = State::Damaged; }

  format::FileHeader header;  // ahead of the disk while a transaction is open
  format::TransactionBlock block;
  std::uint32_t blockOffset = 0;
  MD5 md5;  // of the open transaction's records, as far as the writer has digested them
  std::string path;
  File file;

 private:
  struct Loaded {
    std::uint32_t count = 0;
    std::uint32_t end = format::kFileHeaderSize;
    std::uint32_t largest = 0;  // blob, bytes
    torn::Verdict rest;
    std::string cutShort;
  };

  void Open(const std::string& filePath, BlobFileMode fileMode, unsigned access,
            unsigned disposition);
  bool IsNew(std::uint32_t length);
  bool HeaderIsSound() const;
  void RequireNotInDoubt() const;
  void RequireWritable();
  void RequireRoom(const format::RecordHeader& record) const;
  template <class Write>
  void AppendBy(Write write, BlobFileEntry& entry, std::int32_t op, const Hash& hash,
                std::uint32_t size);
  void Append(BlobFileEntry& entry, std::int32_t op, const Hash& hash, const RawBuffer& data,
              std::uint32_t mostGathered);
  void AppendNow(BlobFileEntry& entry, std::int32_t op, const Hash& hash, const RawBuffer& data);
  void WriteHeader(const format::FileHeader& next);
  void Rewrite(const format::FileHeader& next);
  bool PutCommittedHeader();
  [[noreturn]] void ThrowNotFlushed(const char* what, std::uint32_t code) const;

  format::FileHeader committed;  // as it is on disk, if it is sound
  BlobFileMode mode = Journal;   // what Init was told, whatever the file says
  std::atomic<State> state = State::Clean;
  bool committedIsSound = false;  // it may be put back after a failed write
  bool cutOnClose = false;
  std::uint32_t life = 0;
  Loaded loaded;
  const ProgressCall* loadProgress = nullptr;
  RecordWriter writer{file, header, block, blockOffset, md5};
};
