/*
 * Blobring: a content-addressed store of blobs on a local file system.
 *
 * A blob is a run of bytes; its key is the 16-byte MD5 digest (RFC 1321) of
 * those bytes, its hash. A store is addressed by a small index, which
 * BCInitialize returns and which is never used again in the process.
 *
 *   BCInitialize(dir) -> index     open a store on a directory
 *   BCAddPackDir(index, dir)       once for each slot, always in the same order
 *   BCLoad(index)                  read what is there
 *   BCStartTransaction, BCStore, BCDelete ..., BCEndTransaction
 *   BCGetSize, BCGet, enumeration, BCRepack, BCFsck at any time
 *   BCDispose(index)               close, forget
 *
 * Threads: the library takes no lock. The caller serialises all calls.
 * Memory: callers own every buffer; nothing is kept beyond a call.
 * Limits: a file stays below 2 GiB, and so does a blob; one process at a time
 * has a store open.
 * Paths: UTF-16 units of which the low 8 bits are taken, so that a UTF-8 path
 * is passed byte by byte, each byte widened to one unit.
 * Errors: results are int. Functions marked "throws" let a C++ exception
 * derived from std::exception reach the caller (never across C: a C caller
 * must not use them where they can fail); the others return the failure value
 * that is named. Every failure leaves a text on the trace.
 * An index that no open store has: the failure value and a warning.
 */
#ifndef BLOBRING_BLOBRING_H
#define BLOBRING_BLOBRING_H

#ifdef __cplusplus
#include <cstdint>
#else
#include <stdbool.h>
#include <stdint.h>
#include <uchar.h>
#endif

#if defined(__GNUC__)
#define BLOBRING_API __attribute__((visibility("default")))
#else
#define BLOBRING_API
#endif

/* The version of this header; BCVersion tells that of the library. */
#define BLOBRING_VERSION "1.0.0"

/* Bytes of a hash. */
#define BLOBRING_HASH_SIZE 16

#ifdef __cplusplus
extern "C" {
#endif

/* The library's version, "1.0.0" and the like; valid for ever. */
BLOBRING_API const char* BCVersion(void);

/* ---- Opening and closing -------------------------------------------------- */

/*
 * Is told how far a load, a check or a repack has got. To return something
 * other than 0 stops a check or a repack; a load goes on. May ask BCLastError
 * and call nothing else of the library; must not throw.
 * BLOBRING_LOADING: in bytes of one file, the pack and then the journal; after
 * a damaged pack the next older one follows. BLOBRING_CHECKING and
 * BLOBRING_REPACKING: in blobs. Called at least once in every 256 blobs or
 * 4 MiB, a larger blob counting as one, and at the end with done = total.
 */
#define BLOBRING_LOADING 1
#define BLOBRING_CHECKING 2
#define BLOBRING_REPACKING 3
typedef int BCProgress(void* context, int operation, uint64_t done, uint64_t total);

/* How BCOpen opens a store; what is 0 or null stands for the default. */
typedef struct BCOptions {
  uint32_t size;               /* sizeof(BCOptions), so that the structure can grow */
  uint32_t slotCount;          /* default 2, or as many as packDirs has */
  const char* const* packDirs; /* a directory for the pack of each slot; default: the store's own for all */
  int eraseDamaged;            /* 1: BLOBRING_DAMAGE_ERASE; default: BLOBRING_DAMAGE_KEEP */
  BCProgress* progress;        /* as BCSetProgress, the load included */
  void* progressContext;
} BCOptions;

/*
 * BCInitialize, BCAddPackDir for each slot, BCSetDamagePolicy and BCLoad in
 * one call that throws nothing: opens the store in `directory`, which must
 * exist, for programs that cannot take exceptions. Paths are NUL-terminated
 * bytes as the system takes them. `options` may be null. packDirs needs
 * slotCount. Returns the index of the store; -1 on failure, when nothing
 * stays open and BCLastError(-1) tells why.
 */
BLOBRING_API int BCOpen(const char* directory, const BCOptions* options);

/*
 * Sets who is told how far loads, BCCheck and BCRepack of this store get; null
 * for nobody. With it, a repack holds the index in memory twice. Returns 1; 0
 * for an unknown index.
 */
BLOBRING_API int BCSetProgress(int index, BCProgress* progress, void* context);

/*
 * Opens a store whose journals lie in the directory `path` (NUL-terminated),
 * which must exist. No file is touched yet. Returns the index of the store,
 * 0 or more, counting up; -1 when path is null.
 * Throws std::runtime_error("Unable to allocate memory").
 */
BLOBRING_API int BCInitialize(const char16_t* path);

/*
 * Adds a slot: the k-th call opens or creates the pack `dir`/k.pak and the
 * journal k.jrn in the store's directory, both exclusively. A store must be
 * given the same slots in the same order every time. One slot works; with two
 * or more the previous generation survives a repack.
 * Returns 1; 0 for a null dir. Throws std::runtime_error when a file cannot be
 * opened, created or flushed, after half a second when another opener holds
 * it; the slot is then not added and the call can be tried again.
 */
BLOBRING_API int BCAddPackDir(int index, const char16_t* dir);

/* Policies of BCSetDamagePolicy. */
#define BLOBRING_DAMAGE_ERASE 0
#define BLOBRING_DAMAGE_KEEP 1

/*
 * Chooses what BCLoad does with files that it cannot read; call it before.
 * BLOBRING_DAMAGE_ERASE, the default, brings a device back by itself: a store
 * without a readable pack, or one whose reading fails, is erased.
 * BLOBRING_DAMAGE_KEEP is for the only copy: nothing is ever deleted. Returns
 * 1; 0 for a policy that does not exist.
 */
BLOBRING_API int BCSetDamagePolicy(int index, int policy);

/*
 * Rebuilds the index of blobs: the newest pack that reads cleanly, then its
 * slot's journal. Changes that were not committed are abandoned. A damaged
 * journal keeps its whole transactions before the damage.
 * Returns 1, or 0 when no pack could be loaded or reading failed: the store's
 * files have then been erased.
 * Under BLOBRING_DAMAGE_KEEP, a damaged pack, one that ends too early
 * included, is passed over for the next older one; of a damaged journal the
 * header and all that follows its whole transactions are copied to
 * k.jrn.kept-N before they are overwritten; without any usable pack all files
 * are renamed to ….kept-N, the trace says so, and the store goes on empty (1);
 * and where reading fails for another reason (an I/O error, no memory), 0
 * leaves every file as it was, and changes are refused until a load succeeds.
 */
BLOBRING_API int BCLoad(int index);

/*
 * Closes the files of a store and empties its index; the store stays
 * registered. `flag` has no effect. Changes that were not committed are lost.
 * Returns 1, 0 on failure.
 */
BLOBRING_API int BCShutdown(int index, bool flag);

/*
 * Closes a store and forgets it. Returns 1, also for an unknown index.
 */
BLOBRING_API int BCDispose(int index);
BLOBRING_API int BCDisposeInt(int index);

/* ---- Changing ------------------------------------------------------------- */

/*
 * Opens a transaction under the caller's id, any number, read through the
 * pointer. Changes still pending from before are abandoned. Returns 1, 0 on
 * failure or for a null pointer.
 */
BLOBRING_API int BCStartTransaction(int index, const long long* transactionId);

/*
 * Commits the changes made since the last commit. Once this has returned 1
 * they survive a power cut; while it has not, the store holds all of them or
 * none after one. Returns 0 on failure: before anything was flushed the
 * changes stay pending and the call can be tried again; after a failed flush
 * the outcome is in doubt and the store takes no further change until it is
 * disposed of and opened anew.
 */
BLOBRING_API int BCEndTransaction(int index, const long long* transactionId);

/* Does nothing; returns 1. BCStartTransaction abandons pending changes. */
BLOBRING_API int BCCancelTransaction(void);

/*
 * Abandons the changes made since the last commit. Returns 1; 0 for an unknown
 * index.
 */
BLOBRING_API int BCAbandonTransaction(int index);

/*
 * Stores `size` bytes at `data` under `hash` (16 bytes), which must be their
 * MD5 digest: it is not computed here, but checked whenever the blob is read.
 * A blob that is present already is not written again. Returns 1 stored or
 * present; 0 not stored: a failed write, a full file, a null pointer, a
 * negative size. After a 0 the transaction is sound and can be committed.
 * BCStoreInt, the same, has C++ linkage; see below.
 */
BLOBRING_API int BCStore(int index, unsigned char* hash, unsigned char* data, int size);

/*
 * Computes the hash of `size` bytes at `data` and stores them as BCStore does,
 * in less time than BCMD5ChkSum and BCStore take: the digests of a run of
 * blobs and of their transaction are computed side by side. Writes the hash to
 * `hashOut` (16 bytes) whenever the arguments are sound. Returns like BCStore.
 */
BLOBRING_API int BCPut(int index, const unsigned char* data, int size, unsigned char* hashOut);

/* A blob for BCPutMany: what to store, and the hash, which is filled in. */
typedef struct BCBlob {
  const unsigned char* data;
  int size; /* bytes */
  unsigned char hash[BLOBRING_HASH_SIZE];
} BCBlob;

/*
 * BCPut of `count` blobs, whose hashes are computed many at a time. Returns
 * how many, from the first on, are stored or were present: `count`, unless one
 * could not be stored or has unsound arguments, at which it stops; 0 as well
 * for an unknown index or a null pointer. The hashes of those are filled in.
 */
BLOBRING_API int BCPutMany(int index, BCBlob* blobs, int count);

/*
 * Deletes a blob. Returns 1 deleted or not present; 0 when nothing could be
 * written, or for a null hash.
 */
BLOBRING_API int BCDelete(int index, unsigned char* hash);
BLOBRING_API int BCDeleteInt(int index, unsigned char* hash);

/*
 * Copies every blob into the next slot's pack and empties that slot's
 * journal, which frees what deleted blobs took. Refused (0, the store as it
 * was) while changes are pending, without a slot, before a load, after a
 * failed flush, when the blobs would not fit into one pack of 2 GiB, when the
 * pack's sequence is negative, which no store writes, or at its highest, and
 * when the function of BCSetProgress stopped it, at any moment before the new
 * generation is committed: with two slots or more the slot that was next has
 * then been emptied. Returns 1; 0 on failure, after which the store is closed
 * and its files hold what they held before. BCGetStatistics tells whether it
 * is closed.
 */
BLOBRING_API int BCRepack(int index);

/* ---- Reading -------------------------------------------------------------- */

/*
 * Bytes of a committed blob; -1 when there is none of that hash; -2 on
 * failure, for an unknown index or a null hash.
 */
BLOBRING_API int BCGetSize(int index, unsigned char* hash);
BLOBRING_API int BCGetSizeInt(int index, unsigned char* hash);

/*
 * Reads a committed blob into `buffer` and checks it against its hash. `size`
 * must be what BCGetSize gave. Returns 0 read; 1 not found; 2 failed.
 * Asking for an absent blob, or with another size, is taken for a fault of
 * the caller: it runs a check of the whole store and raises the platform
 * exception 0x49380D; a larger buffer is filled and 0 returned all the same,
 * a smaller one fails after a second and closes the store.
 */
BLOBRING_API int BCGet(int index, unsigned char* hash, unsigned char* buffer, int size);
BLOBRING_API int BCGetInt(int index, unsigned char* hash, unsigned char* buffer, int size);

/* Results of BCFetch. */
#define BLOBRING_FETCHED 0
#define BLOBRING_NOT_FOUND 1
#define BLOBRING_FAILED 2
#define BLOBRING_TOO_SMALL 3

/*
 * Reads a committed blob into `buffer` of `capacity` bytes and checks it
 * against its hash, for callers that ask before they know: neither a blob that
 * is absent nor a buffer of another size is a fault, nothing waits, and the
 * store stays open whatever is found. *size is set to the blob's bytes with
 * BLOBRING_FETCHED and BLOBRING_TOO_SMALL, to 0 otherwise; `buffer` may be null
 * where `capacity` is 0, which asks for the size alone.
 * BLOBRING_FAILED: no bytes that match the hash can be read, the store is not
 * loaded, or an argument is unsound; the buffer's bytes are then undefined.
 */
BLOBRING_API int BCFetch(int index, const unsigned char* hash, unsigned char* buffer, int capacity, int* size);

/*
 * Writes the first hash after `after`, in ascending order of bytes, to `next`
 * (16 bytes each, which may be the same); the first of all where `after` is
 * null. Needs no reset and goes on through changes. Returns 1; 0 when there is
 * none; -1 on failure or when the store is not loaded.
 */
BLOBRING_API int BCNextHash(int index, const unsigned char* after, unsigned char* next);

/*
 * Starts an enumeration of the committed blobs and returns their number; 0
 * on failure.
 */
BLOBRING_API int BCGetAllBlobHashesReset(int index);
BLOBRING_API int BCGetAllBlobHashesResetInt(int index);

/*
 * Writes the next hash, in ascending order of bytes, to `hash` (16 bytes) and
 * returns 1; 0 at the end, before a reset, and once the store has changed
 * since the reset. `traceArg` goes to the numeric trace.
 */
BLOBRING_API int BCGetAllBlobHashes(int index, unsigned char* hash, int traceArg);

/*
 * Reads every blob and checks it against its hash. Every fault goes to the
 * trace; nothing is changed. Returns 1 sound, 0 faults found. Throws
 * std::runtime_error("Unable to allocate memory").
 */
BLOBRING_API int BCFsck(int index);

/* Results of BCCheck. */
#define BLOBRING_CHECK_FAULTY 0
#define BLOBRING_CHECK_SOUND 1
#define BLOBRING_CHECK_STOPPED (-1)
#define BLOBRING_CHECK_FAILED (-2)

/*
 * BCFsck that throws nothing and can be stopped by the function of
 * BCSetProgress; BLOBRING_CHECK_STOPPED: no fault up to there.
 * BLOBRING_CHECK_FAILED: no memory, a check is running already, or the store is
 * not loaded.
 */
BLOBRING_API int BCCheck(int index);

/* ---- What a store tells about itself -------------------------------------- */

/* Of a store, at one moment. */
typedef struct BCStatistics {
  uint32_t size;    /* sizeof(BCStatistics), set by the caller */
  int32_t loaded;   /* 1: open, loaded and not closed since */
  int32_t inDoubt;  /* 1: a flush has failed, no change is accepted */
  int32_t sequence; /* generation of the pack, counting repacks; -1 without one */
  uint32_t slotCount;
  uint32_t largestBlob; /* bytes; this and all below of committed blobs, unless it says otherwise */
  uint64_t blobCount;
  uint64_t liveBytes;      /* of the blobs' data */
  uint64_t packBytes;      /* of the current pack */
  uint64_t journalBytes;   /* of the current journal, pending changes included */
  uint64_t repackedBytes;  /* what a repack would make of both */
  uint64_t pendingChanges; /* made since the last commit */
} BCStatistics;

/*
 * Fills in statistics->size bytes; fields that this library does not know
 * are set to 0. Walks the index: some 10 ms for 100,000 blobs. Returns 1; 0 on
 * failure, and when size is less than that of the first version.
 */
BLOBRING_API int BCGetStatistics(int index, BCStatistics* statistics);

/*
 * The text of the last failure: what the most recent call on the store that
 * had to report something wrote to the trace, line by line, at most 1023
 * bytes. For -1, or an index that no store has: that of the calls that belong
 * to no store, such as a BCOpen that failed. A call that succeeds leaves the
 * text as it is. Copies it to `buffer`, NUL-terminated and cut to `capacity`,
 * and returns its whole length in bytes; `buffer` may be null where
 * `capacity` is 0.
 */
BLOBRING_API int BCLastError(int index, char* buffer, int capacity);

/* ---- Beside the store ----------------------------------------------------- */

/*
 * Writes the MD5 digest of `length` bytes at `data` to `digest` (16 bytes).
 * BCMD5ChkSum returns 1; BCMD5ChkSumInt 1, or 0 on failure.
 */
BLOBRING_API int BCMD5ChkSum(const unsigned char* data, unsigned int length, unsigned char* digest);
BLOBRING_API int BCMD5ChkSumInt(const unsigned char* data, unsigned int length, unsigned char* digest);

/* Do nothing; return 1. */
BLOBRING_API int BCCacheClear(void);
BLOBRING_API int BCCacheStats(void);

/* For the embedder's own use; 0 when the library is loaded. */
extern BLOBRING_API int cur;

/* Handle of the trace ring buffer; 0 before the first BCInitialize. */
extern BLOBRING_API uint32_t g_BlobControllerRingBuffer;

/* Handle of the raw trace device; 0 until a blob has been dumped to it. */
extern BLOBRING_API uint32_t g_TraceDeviceRaw;

#ifdef __cplusplus
} /* extern "C" */

/* C++ linkage, and so mangled names. */

struct _EXCEPTION_POINTERS;  // NOLINT(bugprone-reserved-identifier): the platform's name

/* As BCStore. */
BLOBRING_API int BCStoreInt(int index, unsigned char* hash, unsigned char* data, int size);

/*
 * A filter for structured exception handling around calls on a store: 1 (take
 * the exception) for an access violation, after a check of the store; 0 (go
 * on searching) for anything else.
 */
BLOBRING_API int FilterException(int index, unsigned int code, _EXCEPTION_POINTERS* info);
#endif

#endif
