// The engine of one open store: slots of pack and journal files, the index of blobs, and the open
// transaction.
//
// A store is a ring of slots. The current one is seq modulo their number: its pack holds the
// compacted blobs of this generation, its journal takes every change. A repack writes the next
// generation into the next slot and then makes that slot current.
//
// Order of calls: construct, AddPackDir for each slot, Load, then anything.
// Errors: operations return bool and catch std::exception, with one message that names the
// operation; where a comment says "throws", the exception reaches the caller. Changes are refused
// after a failed flush and in a closed store until it is opened again, in a store that is open for
// reading, and in a process other than the one that opened it.
// Ownership: BlobFile objects are shared by slots, current files and entries.
// Threads: the caller serialises its calls on one store. After LetReadersIn, any number of threads
// may make reading calls at any time, beside each other and beside one that makes other calls.
// These are GetBlobSize, Fetch, Read, FetchMany, NextHashesAfter, GetStatistics, IsLoaded, Fsck and
// Check.
//
// How that works: only one thread changes the index, so it reads it without a lock. While it
// changes what readers see, it holds readersLock alone. Readers share that lock while they look up
// and read, not while they digest; what they have read is in their own memory. What is found wrong
// then is judged under the lock again. A reader that keeps a place in a file without the lock
// compares the file's life before it uses the place again. The host's functions run with the lock
// only for messages about damage and during a load.
#pragma once

#include <algorithm>
#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <vector>

#include "pack/BlobFile.h"
#include "pack/BlobPair.h"
#include "pack/Hash.h"
#include "pack/PieceCalls.h"
#include "pack/ProgressCall.h"
#include "platform/BlobAllocator.h"
#include "platform/Failure.h"
#include "platform/ReadersLock.h"
#include "store/BlobIndex.h"
#include "store/PendingChanges.h"
#include "store/Slots.h"

// What a load does with files that it cannot read.
enum class DamagePolicy {
  Erase,  // erases the store, which comes back empty
  Keep,   // deletes nothing
};

class BatchReader;

class BLOBRING_EXPORT BlobController : public BlobStoreBase {
 public:
  using BlobFilePtr = boost::shared_ptr<BlobFile>;

  // Does not touch the directory. Throws "Unable to allocate memory".
  explicit BlobController(std::string storeDirectory);
  // Neither commits nor flushes; the files close themselves.
  ~BlobController() override;
  BlobController(const BlobController&) = delete;
  BlobController& operator=(const BlobController&) = delete;

  // Opens files for reading only; nothing on disk is ever changed. Call it before AddPackDir.
  void SetReadOnly();

  // Lets reads run beside other calls. Call it before AddPackDir.
  void LetReadersIn() { readersLock.TurnOn(); }

  // Adds slot k: the pack dir/k.pak and the journal k.jrn in the store's directory, and creates
  // them if they are missing. Throws what BlobFile::Init throws; nothing has been added then.
  bool AddPackDir(std::string dir);

  // Throws a Failure if slots can no longer be added: the store is loaded or closed, has been
  // changed before a load, or was opened by another process.
  void RequireSlotsOpen() const;

  // Rebuilds the index from the newest pack that reads cleanly and its slot's journal. Under
  // DamagePolicy::Erase, returns false and erases all files if there is no such pack or reading
  // fails. Under Keep, only what is damaged is lost, and a copy of what a file loses is kept;
  // without a usable pack, all files are moved aside and the store is empty; if reading fails,
  // returns false and leaves every file as it was. A store that is open for reading changes no file
  // under either policy. Refused, with every file as it was, in a closed store and in a process
  // other than the opener's.
  bool Load();
  void SetDamagePolicy(DamagePolicy policy) { damagePolicy = policy; }

  // Records a change in the open transaction. Returns true also if there is nothing to do. On
  // failure returns false; the transaction is as it was. Before a load, changes go into slot 0's
  // journal, and are refused unless a load would read them there. A blob that a read found damaged
  // is stored again; bytes that do not match the hash fail then.
  bool Store(BlobPair const& blob);
  bool Delete(Hash const& hash);

  // Store and Delete, but the record may stay in memory until the next change or the commit.
  bool Gather(BlobPair const& blob);
  bool GatherDelete(Hash const& hash);

  // Computes the hash of a blob and gathers it. Digests blob and waiting records side by side,
  // which takes about as long as the blob alone.
  bool Put(const unsigned char* data, std::uint32_t size, Hash& hash);

  // Gather of a blob that comes from a source. Bytes that do not match the hash fail. The source is
  // not read if the blob is present.
  bool StoreFrom(Hash const& hash, PieceSource& source);

  // Announces changes to these hashes, a few dozen at a time, to make their look-ups faster.
  void ExpectChanges(const Hash* hashes, std::size_t count) noexcept;

  // Whether the store will hold the blob once the open transaction commits.
  bool BlobExists(Hash const& hash) const;

  // Size of a committed blob in bytes; -1 if there is none.
  std::int32_t GetBlobSize(Hash const& hash);

  // Reads a committed blob into the pair's buffer, which must hold it, and sets its size. Returns
  // false if it is not in the index or its record is not in its place. If reading fails, checks and
  // closes the store and throws std::exception.
  bool GetBlob(BlobPair& blob);

  // Reads a committed blob into a buffer of `capacity` bytes (may be null if that is 0). Sets size
  // to the blob's size for Read and TooSmall. Failed, after a message: it cannot be read, does not
  // match its hash, or the store is not loaded; the buffer's bytes are undefined. Never checks or
  // closes the store and never waits. The values of Fetched are part of the interface.
  enum class Fetched { Read, NotFound, Failed, TooSmall, Stopped };
  Fetched Fetch(const Hash& hash, unsigned char* buffer, std::uint32_t capacity,
                std::uint32_t& size);

  // Hands a committed blob out in pieces, in memory that does not grow with it. Read: all of it was
  // right. Stopped: the sink wants no more. The rest as Fetch. Throws what the sink throws, and
  // "Unable to allocate memory".
  Fetched Read(const Hash& hash, const PieceSink& sink);

  // Fetch of at most kMostWanted blobs, in the order in which they lie and many digests at a time.
  // Those that are not right so far are fetched by themselves. Takes up to 1.1 MiB of memory while
  // it runs. Throws "Unable to allocate memory".
  static constexpr std::size_t kMostWanted = 256;
  struct Wanted {
    unsigned char* buffer;
    std::uint32_t capacity;
    std::uint32_t size = 0;  // set as by Fetch
    Fetched result = Fetched::Failed;
  };
  void FetchMany(const Hash* hashes, Wanted* wanted, std::size_t count);

  // Opens a transaction and abandons pending changes.
  bool StartTransaction(long long id);

  // Abandons pending changes.
  void AbandonPending();

  // Commits: on disk first, then in the index, where nothing can fail.
  bool EndTransaction(long long id);

  // Copies all blobs into the next slot, or into a file beside the only one. Returns false if it
  // was refused (the store is as it was), stopped by the progress callback (the same, but the slot
  // that was to be written has been emptied), or failed (the store is closed, the old generation is
  // whole on disk).
  bool Repack();

  // Reads every blob and reports every fault. Returns false if there was one, and true at once if
  // this thread is already running a check. Throws "Unable to allocate memory".
  bool Fsck();

  // For a check that a jump has left: the next one on this thread runs again.
  static void ForgetCheck() noexcept;

  // Fsck with progress. Stopped: no fault so far. Throws also if a check is running, or the store
  // is not loaded or closed meanwhile. The values are part of the interface.
  enum class Checked { Stopped = -1, Faulty, Sound };
  Checked Check();

  // The progress callback of Load, Check and Repack. The caller owns its context. A check goes on
  // with the one that it began with.
  void SetProgress(const ProgressCall& call) {
    const std::lock_guard alone(readersLock);
    progress = call;
  }

  // Clears the index and closes all files; false if one did not close. No change is accepted from
  // then on, even if a file is still open.
  bool Close();
  bool Shutdown(bool flag);

  // Erases every file of the store from disk.
  bool DeleteFiles();

  // Enumerates the hashes of the index in ascending order. ResetHashCursor returns their number;
  // NextHash is false at the end, before a reset, and once the index has changed.
  int ResetHashCursor();
  bool NextHash(unsigned char* hash);

  // Writes the first hashes after `after`, or the first of all if that is null, to next. Returns
  // how many: fewer than `capacity` if there are no more; -1 if the store is not loaded.
  int NextHashesAfter(const Hash* after, unsigned char (*next)[Hash::kSize], int capacity) const;

  struct Statistics {
    bool loaded;
    bool inDoubt;
    bool damaged;  // the last load met damage, a torn last transaction aside
    bool readOnly;
    std::int32_t sequence;  // of the pack
    std::uint32_t slotCount;
    std::uint64_t blobCount;
    std::uint64_t liveBytes;     // of the blobs' data
    std::uint32_t largestBlob;   // bytes
    std::uint64_t pendingCount;  // changes
    // Up to the end of the last record.
    std::uint64_t packBytes;
    std::uint64_t journalBytes;
    std::uint64_t repackedBytes;  // what a repack would leave as the pack
  };
  Statistics GetStatistics() const;

  bool IsLoaded() const { return state == State::Loaded; }

  // Oldest transaction first, then by hash: the order of a repacked pack.
  static bool sortByTransaction(BlobFile::BlobFileEntry const& a, BlobFile::BlobFileEntry const& b);

 private:
  // How far a store has come. Reads are answered in Loaded, changes in Changed and Loaded unless
  // there is a Refusal.
  //
  //                  first change
  //   ┌▶ Attached ──────────────────▶ Changed
  //   │     │ └──────────┬──────────────┘ │
  //   │     │            │ Load           │ Close, DeleteFiles, a failure of
  //   │     │            ▼                │ GetBlob, Repack or an erasing Load
  //   └─────┼───────── Loaded             │
  //    Load │            │                ▼
  //  fails  └────────────┴────────────▶ Closed
  enum class State {
    Attached,  // slots may be added
    Changed,   // before a load: slot 0 is the one that a load would choose, and takes changes
    Loaded,    // the index shows the newest generation
    Closed,    // for good
  };

  // Why no change is accepted. ReadOnly lasts until the store is closed, what a load could not do
  // until the next load.
  struct Refusal {
    FailureCode code = FailureCode::None;  // None: changes are accepted
    const char* reason = "";
  };

  // Of the blobs in the index, in bytes.
  struct Sizes {
    std::uint32_t largest = 0;
    std::uint64_t total = 0;

    void Add(std::uint32_t size) {
      largest = std::max(largest, size);
      total += size;
    }
  };

  class Pieces;

  void LoadFiles();
  bool LoadNewestPack(BlobFile::Entries& entries);
  bool LoadPack(BlobFile& pack, BlobFile::Entries& entries) const;
  void LoadJournal(BlobFile::Entries& entries);
  bool SetAside(BlobFile& journal);
  void Apply(BlobFile::Entries& entries, const BlobFilePtr& file);
  const BlobFile::BlobFileEntry* Latest(Hash const& hash) const;
  const BlobFile::BlobFileEntry* FindLoaded(const char* operation, const Hash& hash,
                                            Fetched& absent) const;
  bool FetchAtOnce(const Hash& hash, const BlobFile::BlobFileEntry& entry, unsigned char* buffer,
                   std::shared_lock<ReadersLock>& reading) const;
  bool FetchInPieces(const Hash& hash, std::uint32_t size, unsigned char* buffer);
  Fetched Unreadable(const char* operation, const BlobFile::BlobFileEntry& entry,
                     const std::exception& e);
  template <class Write>
  bool Change(Hash const& hash, Write write);
  template <class Write>
  bool DeleteWith(Hash const& hash, Write write);
  template <class IsRight, class Write>
  bool StoreWith(Hash const& hash, IsRight isRight, Write write);
  Hash HashOf(const unsigned char* data, std::uint32_t size);
  void RefuseChanges(FailureCode code, const char* reason);
  void RequireOpener() const;
  void RequireChangeable() const;
  void RequireFirstSlotCurrent();
  void RequireRepackable() const;
  void RepackIntoNextSlot(std::int32_t sequence, BlobFilePtr& unfinished);
  void RepackInPlace(std::int32_t sequence, BlobFilePtr& unfinished);
  BlobFile::Entries CopyBlobs(const BlobFilePtr& target);
  static bool DecodeForCopy(BatchReader& batch, std::size_t i, const BlobFile::Entries& entries,
                            std::size_t number);
  void EndLife(BlobFile& file);
  static void RequireInPlace(const BlobFile& pack);
  void PointTo(const BlobFile::Entries& copied);
  bool IsInPlace(BlobFile::BlobFileEntry const& entry) const;
  bool CheckPlace(BlobFile::BlobFileEntry const& entry) const;
  bool CheckAlone(BatchReader& batch, std::size_t i, int position);
  static bool CheckBlob(BatchReader& batch, std::size_t i, BlobFile::BlobFileEntry const& entry,
                        int position);
  Sizes SizesOf() const;
  std::uint64_t RepackedSize(const Sizes& sizes) const;
  Checked CheckAll(const ProgressCall& call);
  void CheckAfterFailure();
  bool EraseFiles();
  void NoteFigures();

  // Held alone where a member that readers read changes.
  mutable ReadersLock readersLock;
  std::int32_t seq = 0;  // of the current pack; -1 while none has been found
  Slots slots;
  BlobFilePtr arriving;          // the next pack, while blobs are pointed to it
  std::uint32_t repackSlot = 0;  // of the last repack
  // What statistics have to show of what changes without the lock.
  std::atomic<std::uint32_t> journalEnd = 0;  // of the current one, pending changes included
  std::atomic<std::size_t> pendingCount = 0;
  std::int64_t transactionId = 0;

  // An entry is valid until a read finds the blob damaged or in no current file. During a load the
  // mark says that the files have the blob.
  BlobIndex blobs;
  std::optional<BlobIndex::iterator> hashCursor;  // while hashes are enumerated
  PendingChanges pending;                         // of the open transaction
  DamagePolicy damagePolicy = DamagePolicy::Erase;
  ProgressCall progress;
  std::atomic<State> state = State::Attached;
  Refusal refusal;
  std::string lossReason;   // what a load could not keep, and why; a refusal may point to it
  bool hasInvalid = false;  // during a load: the index may hold what the store does not
  bool damaged = false;
  bool readOnly = false;
  const DWORD openerProcess;
};
