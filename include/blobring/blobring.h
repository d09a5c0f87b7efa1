/*
 * Blobring: a content-addressed store of blobs on a local file system.
 *
 * A blob is a run of bytes. Its key is the 16-byte MD5 digest (RFC 1321) of
 * those bytes, its hash. A store is addressed by its index, a small integer
 * that is never reused in the process.
 *
 *   BCOpen(dir, options) -> index
 *   BCStartTransaction, BCPut, BCDelete ..., BCEndTransaction
 *   BCFetch, BCNextHash, BCCheck, BCRepack, BCGetStatistics
 *   BCPutMany, BCDeleteMany, BCFetchMany, BCNextHashes: many blobs a call
 *   BCStoreFrom, BCRead: a blob in pieces
 *   BCDispose(index)
 *
 * A device's process opens a store in steps: BCInitialize, BCAddPackDir for
 * each slot, BCLoad.
 *
 * Threads: the library starts no thread. Calls on different stores, opening and
 * disposing among them, may run at the same time on different threads.
 * On a store that BCOpen has opened, the reading calls may run at any time on any
 * number of threads, beside each other and beside one thread that makes other
 * calls: BCFetch, BCFetchMany, BCRead, BCGetSize, BCNextHash, BCNextHashes,
 * BCCheck, BCFsck, BCGetStatistics. They see the last commit, whole, and wait for
 * the moments in which the index changes, not for flushes or for a repack's
 * copying. All other calls on one store must not overlap, those of BCGet and
 * BCGetAllBlobHashes included; BCDispose may, and waits. On a store of
 * BCInitialize no calls may overlap.
 * Callbacks: a sink, source or progress function of the host's may call
 * BCLastError, BCLastErrorCode, BCLastSystemError and the functions of host.h,
 * nothing else. A call on a store from there is refused. Only FilterException is
 * allowed.
 * Processes: one process at a time has a store open. In a child of fork, every
 * change and load of a store that the parent opened is refused; see
 * docs/embedding.md.
 * Memory: callers own every buffer. The library keeps none beyond a call.
 * Limits: a file is smaller than 2 GiB; the largest blob has 2147483531 bytes.
 * A store has at most 1000 slots.
 * Paths: char paths are NUL-terminated bytes, as the system takes them. Of a
 * char16_t unit the low 8 bits count; pass a UTF-8 path byte by byte.
 * Errors: results are int. Every failure leaves a message on the trace, a text
 * (BCLastError) and a code (BCLastErrorCode). A call marked "throws" lets a C++
 * exception derived from std::exception reach the caller; C callers must not
 * use it. All other calls return their documented failure value; an unknown
 * index or null pointer is a failure.
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

/* The version of this header. BCVersion has the library's. */
#define BLOBRING_VERSION "1.0.0"

/* Bytes of a hash. */
#define BLOBRING_HASH_SIZE 16

#ifdef __cplusplus
extern "C" {
#endif

/* Returns the library's version, for example "1.0.0". Static storage. */
BLOBRING_API const char* BCVersion(void);

/* ---- Opening and closing -------------------------------------------------- */

#define BLOBRING_LOADING 1
#define BLOBRING_CHECKING 2
#define BLOBRING_REPACKING 3

/*
 * Progress callback. `operation` is one of the three above. `done` and `total`
 * are bytes of one file when loading (the pack, then the journal; after a
 * damaged pack, the next older one) and blobs otherwise. Called at least once
 * in 256 blobs or 4 MiB, a larger blob counting as one, and at the end with
 * done = total. Return non-zero to stop a check or a repack; ignored during a
 * load. Must not throw.
 */
typedef int BCProgress(void* context, int operation, uint64_t done, uint64_t total);

/* How BCOpen opens a store. 0 or null stands for the default. */
typedef struct BCOptions {
  uint32_t size;               /* sizeof(BCOptions) */
  uint32_t slotCount;          /* default: that of blobring.conf, or else 2 */
  const char* const* packDirs; /* of each slot; default: those of blobring.conf, or path */
  int eraseDamaged;            /* 1: BLOBRING_DAMAGE_ERASE; default: BLOBRING_DAMAGE_KEEP */
  BCProgress* progress;        /* as BCSetProgress, the load included */
  void* progressContext;
  int mustExist; /* 1: fail when there is no store, and create none */
  int readOnly;  /* 1: never write; implies mustExist; every change fails */
} BCOptions;

/*
 * Opens the store in `directory`, which must exist. `options` may be null.
 * Returns its index. On failure returns -1, nothing stays open, and
 * BCLastError(-1) and BCLastErrorCode(-1) tell why.
 *
 * The slots are those that blobring.conf in the directory names, if it is
 * there. Options that contradict it fail with BLOBRING_ERROR_ARGUMENT. Without
 * it they are those of `options`, and the files must agree with them.
 *
 * Fails, before any file is created or written, when the store would be opened
 * with other slots than it has or without its newest generation. The message
 * names the file. That is:
 *   - a pack or journal that is missing while another has been used;
 *   - without blobring.conf, a file of a slot that `options` lack, a pack whose
 *     generation does not belong into its slot, or a file that no store wrote;
 *   - with it, a file that is not a damaged one of a store's either, unless
 *     readOnly is set;
 *   - a journal newer than every pack, unless readOnly or eraseDamaged is set.
 */
BLOBRING_API int BCOpen(const char* directory, const BCOptions* options);

/*
 * Sets the callback for loads, BCCheck and BCRepack of this store; null for
 * none. `context` must remain valid while it is set, and until the calls that
 * began with it have ended. It is called on the thread of each call. Returns 1; 0
 * on failure.
 */
BLOBRING_API int BCSetProgress(int index, BCProgress* progress, void* context);

/*
 * Registers a store whose journals lie in the directory `path`, made absolute
 * now. Touches no file. Returns its index, 0 or more, counting up; -1 for a null
 * path and for one with a unit whose low byte is 0, which would end it. Throws
 * std::runtime_error when memory is short.
 */
BLOBRING_API int BCInitialize(const char16_t* path);

/*
 * Adds a slot: the k-th call opens or creates the pack `dir`/k.pak and the
 * journal k.jrn in the store's directory, both exclusively.
 * REQUIRES: the same slots in the same order on every open.
 * Returns 1; 0, with nothing opened, for a path that BCInitialize would refuse
 * and for a store that is loaded, closed or has taken a change. Throws
 * std::runtime_error when a file cannot be opened, created or flushed, after
 * half a second when another opener holds it. The slot is then not added, and
 * the call can be repeated.
 */
BLOBRING_API int BCAddPackDir(int index, const char16_t* dir);

/* Policies of BCSetDamagePolicy. */
#define BLOBRING_DAMAGE_ERASE 0
#define BLOBRING_DAMAGE_KEEP 1

/*
 * Chooses what BCLoad does with damaged files. Call it before BCLoad. ERASE is
 * the default here and brings a device back by itself. KEEP is the default of
 * BCOpen; it never deletes. Returns 1; 0 on failure.
 */
BLOBRING_API int BCSetDamagePolicy(int index, int policy);

/*
 * Rebuilds the index of blobs from the newest pack that reads cleanly and the
 * journal of its slot. Abandons pending changes. A store that was shut down, or
 * has closed itself after a failure, is not loaded again
 * (BLOBRING_ERROR_CLOSED): dispose of it and open it. Before the load, changes
 * go into slot 0's journal; they fail where the load would not read them there.
 * Returns 1 loaded, 0 failed.
 *
 *   found                    BLOBRING_DAMAGE_ERASE      BLOBRING_DAMAGE_KEEP
 *   ----------------------   ------------------------   ---------------------------
 *   a damaged pack           1: the next older one      1: the next older one
 *                                                       (damaged = 1)
 *   a damaged journal        1: its whole transactions  1: the same; the rest is
 *                            before the damage          copied to k.jrn.kept-N
 *                                                       first (damaged = 1)
 *   a journal whose last     1: all before it           1: all before it; the rest
 *   transaction may be torn                             is copied to k.jrn.kept-N
 *   no usable pack           0: all files erased        1: empty; all files renamed
 *                                                       to *.kept-N (damaged = 1)
 *   a pack that ends inside  0: all files erased        1: the next older one
 *   a record                                            (damaged = 1)
 *   an I/O error, or no      0: all files erased        0: every file as it was;
 *   memory                                              changes refused until a
 *                                                       load succeeds
 */
BLOBRING_API int BCLoad(int index);

/*
 * Closes the files of a store and empties its index. The store stays
 * registered; changes then fail. Pending changes are lost. `flag` has no
 * effect. Returns 1; 0 on failure.
 */
BLOBRING_API int BCShutdown(int index, bool flag);

/*
 * Shuts a store down and drops its index. Waits for the calls on the store that
 * other threads are in; calls that come later find no store. Returns 1, also for
 * an index that no store has; 0 when called from a function of the host's.
 */
BLOBRING_API int BCDispose(int index);
BLOBRING_API int BCDisposeInt(int index);

/* ---- Changing ------------------------------------------------------------- */

/*
 * Opens a transaction under the id *transactionId. Any id will do; a repack
 * orders blobs by it. Abandons changes that are pending. Returns 1; 0 on
 * failure.
 */
BLOBRING_API int BCStartTransaction(int index, const long long* transactionId);

/*
 * Commits the pending changes. Once it has returned 1, they survive a power
 * cut. A power cut before that leaves all of them or none. On failure returns
 * 0: the changes stay pending and the call can be repeated, unless
 * BCLastErrorCode is BLOBRING_ERROR_IN_DOUBT. A flush has then failed, the
 * outcome is unknown, and the store takes no change until it is opened again.
 */
BLOBRING_API int BCEndTransaction(int index, const long long* transactionId);

/* Does nothing and returns 1. Use BCAbandonTransaction. */
BLOBRING_API int BCCancelTransaction(void);

/* Abandons the pending changes, if any. Returns 1; 0 on failure. */
BLOBRING_API int BCAbandonTransaction(int index);

/*
 * Stores `size` bytes at `data` under `hash` (16 bytes). A blob that is present
 * is not written again, unless a BCFetch or BCCheck since the load has found it
 * damaged. The record is in the journal when the call returns.
 * REQUIRES: hash is the MD5 digest of the data. It is checked at every read.
 * Returns 1 stored or present. On failure returns 0; the transaction is as it
 * was before the call and can be committed.
 * BCStoreInt does the same and has C++ linkage; see below.
 */
BLOBRING_API int BCStore(int index, unsigned char* hash, unsigned char* data, int size);

/*
 * Computes the hash of `size` bytes at `data`, writes it to `hashOut` (16
 * bytes), and stores them. Faster than BCMD5ChkSum and BCStore: records are
 * gathered in memory and written later, at the latest by BCEndTransaction,
 * which can fail for them. Up to 128 KiB are gathered, or one record with a blob
 * of up to 512 KiB; the store keeps at most 128 KiB for that until it is closed.
 * Returns as BCStore; hashOut is set whenever the arguments are valid.
 */
BLOBRING_API int BCPut(int index, const unsigned char* data, int size, unsigned char* hashOut);

/* A blob for BCPutMany, which fills in the hash. */
typedef struct BCBlob {
  const unsigned char* data;
  int size; /* bytes */
  unsigned char hash[BLOBRING_HASH_SIZE];
} BCBlob;

/*
 * BCPut of `count` blobs. Computes many hashes at a time. Stops at the first
 * blob that cannot be stored or is invalid. Returns how many blobs before it
 * are stored or present, with their hashes filled in.
 */
BLOBRING_API int BCPutMany(int index, BCBlob* blobs, int count);

/*
 * Source of a blob. Writes the next bytes to `buffer`, at most `capacity`, which
 * is 1 MiB or less. Returns how many, 1 or more; 0 when there are no more; a
 * negative number on failure. An exception that leaves it ends BCStoreFrom: one
 * derived from std::exception as a failure with its text, any other by reaching
 * the caller.
 */
typedef int BCSource(void* context, unsigned char* buffer, int capacity);

/*
 * Stores a blob of `size` bytes, whose MD5 digest is `hash`, in pieces that it
 * pulls from `source`, and gathers its record as BCPut. Takes up to 1 MiB of
 * memory until it returns, however large the blob is. A blob that is present is
 * not written again, as with BCStore, and the source is then not called; nor is
 * it for a blob of 0 bytes. The source is asked for `size` bytes in all; what it
 * has beyond these is not looked at.
 * Returns 1 stored or present. On failure returns 0: the source failed or ended
 * before, the bytes do not match the hash (BLOBRING_ERROR_ARGUMENT), or they
 * cannot be written. The transaction is then as it was before the call and can
 * be committed; what had been written of the blob is given back to the disk, at
 * the latest when the store is closed.
 */
BLOBRING_API int BCStoreFrom(int index, const unsigned char* hash, uint64_t size, BCSource* source,
                             void* context);

/*
 * Deletes a blob, damaged or not. The record is in the journal when the call returns. Returns 1
 * deleted or not present. On failure returns 0, as BCStore.
 */
BLOBRING_API int BCDelete(int index, unsigned char* hash);
BLOBRING_API int BCDeleteInt(int index, unsigned char* hash);

/*
 * BCDelete of `count` blobs, whose records are gathered as those of BCPut.
 * Stops at the first that fails. Returns how many before it are deleted or not
 * present.
 */
BLOBRING_API int BCDeleteMany(int index, const unsigned char (*hashes)[BLOBRING_HASH_SIZE],
                              int count);

/* Results of BCRepack. */
#define BLOBRING_REPACKED 1
#define BLOBRING_NOT_REPACKED 0

/*
 * Copies every blob into the next slot's pack and empties that slot's journal.
 * That frees the space of deleted blobs. Returns BLOBRING_REPACKED, or
 * BLOBRING_NOT_REPACKED and
 *   - the store as it was when it was refused: changes are pending, no slot, not
 *     loaded, in doubt, read-only, more than 2 GiB of blobs, or a sequence
 *     number that is negative or the highest;
 *   - the store as it was when the progress callback stopped it. With two or
 *     more slots, the generation before the current one is gone then;
 *   - the store closed when it failed. Its files hold what they held before. A
 *     damaged blob makes every repack fail until it is deleted, or stored again
 *     after a check; the text names it.
 * BCGetStatistics tells whether the store is still loaded.
 */
BLOBRING_API int BCRepack(int index);

/* ---- Reading -------------------------------------------------------------- */

/* Results of BCGetSize below 0. */
#define BLOBRING_SIZE_NOT_FOUND (-1)
#define BLOBRING_SIZE_FAILED (-2)

/*
 * Returns the bytes of a committed blob, or one of the two above. A store that
 * is not loaded has no blobs for this call, BCGet, BCFsck and the enumeration;
 * BCLastErrorCode is then BLOBRING_ERROR_CLOSED.
 */
BLOBRING_API int BCGetSize(int index, unsigned char* hash);
BLOBRING_API int BCGetSizeInt(int index, unsigned char* hash);

/* Results of BCGet, BCFetch, BCFetchMany and BCRead. */
#define BLOBRING_FETCHED 0
#define BLOBRING_NOT_FOUND 1
#define BLOBRING_FAILED 2
#define BLOBRING_TOO_SMALL 3 /* of BCFetch and BCFetchMany */
#define BLOBRING_STOPPED 4   /* of BCRead */

/*
 * Copies a committed blob into `buffer` and checks it against its hash.
 * REQUIRES: `size` is what BCGetSize returned.
 * An absent blob or another size is a fault of the caller: the call checks the
 * whole store and raises the platform exception 0x49380D. It then returns
 * BLOBRING_NOT_FOUND, or BLOBRING_FETCHED for a buffer that is too large. One
 * that is too small fails after a second and closes the store, and so does a
 * blob that cannot be read. BCFetch does none of this.
 */
BLOBRING_API int BCGet(int index, unsigned char* hash, unsigned char* buffer, int size);
BLOBRING_API int BCGetInt(int index, unsigned char* hash, unsigned char* buffer, int size);

/*
 * Copies a committed blob into buffer[0..*size) and checks it against its hash.
 * A blob that is not committed yet is not found, as with every call that reads.
 * With capacity 0, buffer may be null. Never closes the store and never waits.
 * Returns BLOBRING_FETCHED; BLOBRING_NOT_FOUND; BLOBRING_TOO_SMALL (*size is the
 * size needed, buffer untouched); BLOBRING_FAILED (buffer undefined). *size is 0
 * for the second and the last.
 */
BLOBRING_API int BCFetch(int index, const unsigned char* hash, unsigned char* buffer, int capacity,
                         int* size);

/* A blob for BCFetchMany, which fills in size and result. */
typedef struct BCFetchItem {
  unsigned char hash[BLOBRING_HASH_SIZE];
  unsigned char* buffer;
  int capacity; /* bytes at buffer */
  int size;     /* as *size of BCFetch */
  int result;   /* as that of BCFetch */
} BCFetchItem;

/*
 * BCFetch of `count` blobs. Reads them in the order in which they lie,
 * neighbours at once, and digests many at a time: with dozens of blobs or more
 * that takes less than half the time. Each item has its own result, whatever
 * happens to the others. Buffers must not overlap. Takes up to 1.1 MiB of memory
 * until it returns. Returns how many items have BLOBRING_FETCHED; 0 also when
 * the call fails, with BLOBRING_FAILED in every item.
 */
BLOBRING_API int BCFetchMany(int index, BCFetchItem* items, int count);

/*
 * Sink of a blob. Takes its next `size` bytes, 1 or more, which remain valid
 * until it returns. Return 0 to go on and anything else to stop. An exception
 * that leaves it ends BCRead: one derived from std::exception as a failure with
 * its text, any other by reaching the caller.
 */
typedef int BCSink(void* context, const unsigned char* data, int size);

/*
 * Hands a committed blob to `sink` in pieces of at most 1 MiB, in order, and
 * checks it against its hash. Takes up to 1 MiB of memory until it returns,
 * however large the blob is. What the sink has got must not be used before
 * BLOBRING_FETCHED says that it was right. Commits and repacks on another thread
 * do not wait for the sink. Only when the blob is deleted and its space is used
 * again before the last piece does the call fail.
 * Returns BLOBRING_FETCHED: all of it was handed out, none for a blob of 0
 * bytes; BLOBRING_NOT_FOUND; BLOBRING_STOPPED, by the sink; BLOBRING_FAILED. Of a
 * damaged blob the last piece is never handed out, so that one of at most 64 KiB
 * is not handed out at all. Never closes the store and never waits.
 */
BLOBRING_API int BCRead(int index, const unsigned char* hash, BCSink* sink, void* context);

/*
 * Writes the first committed hash after `after` in ascending byte order to
 * `next`, or the first of all when `after` is null. Both have 16 bytes and may
 * be the same. The store may change between calls. Returns 1; 0 when there is
 * none; -1 on failure.
 */
BLOBRING_API int BCNextHash(int index, const unsigned char* after, unsigned char* next);

/*
 * Writes the first `capacity` committed hashes after `after`, or of all when
 * that is null, in ascending byte order to `next`, in which `after` may lie.
 * Returns how many: fewer than `capacity` when there are no more; -1 on failure.
 */
BLOBRING_API int BCNextHashes(int index, const unsigned char* after,
                              unsigned char (*next)[BLOBRING_HASH_SIZE], int capacity);

/*
 * Starts an enumeration of the committed blobs. Returns their number; 0 on
 * failure.
 */
BLOBRING_API int BCGetAllBlobHashesReset(int index);
BLOBRING_API int BCGetAllBlobHashesResetInt(int index);

/*
 * Writes the next hash in ascending byte order to `hash` (16 bytes) and returns
 * 1. Returns 0 at the end, before a reset, after a change to the store, and on
 * failure. `traceArg` goes to the numeric trace.
 */
BLOBRING_API int BCGetAllBlobHashes(int index, unsigned char* hash, int traceArg);

/*
 * Reads every blob and checks it against its hash. Reports every fault to the
 * trace and changes nothing. Returns 1 sound, 0 faults found. Throws
 * std::runtime_error when memory is short.
 */
BLOBRING_API int BCFsck(int index);

/* Results of BCCheck. */
#define BLOBRING_CHECK_FAULTY 0
#define BLOBRING_CHECK_SOUND 1
#define BLOBRING_CHECK_STOPPED (-1)
#define BLOBRING_CHECK_FAILED (-2)

/*
 * As BCFsck, without exceptions, and the progress callback can stop it. Blobs
 * that are stored meanwhile may be left out. BLOBRING_CHECK_STOPPED: no fault so
 * far. BLOBRING_CHECK_FAILED: no memory, a check is running on this thread, or
 * the store is not loaded.
 */
BLOBRING_API int BCCheck(int index);

/* ---- State and errors ----------------------------------------------------- */

/* A store at one moment. Sizes are bytes. */
typedef struct BCStatistics {
  uint32_t size;    /* sizeof(BCStatistics), set by the caller */
  int32_t loaded;   /* 1: loaded and not closed since */
  int32_t inDoubt;  /* 1: a flush has failed, no change is accepted */
  int32_t sequence; /* generation of the pack, counting repacks; -1 without one */
  uint32_t slotCount;
  uint32_t largestBlob;    /* largest committed blob */
  uint64_t blobCount;      /* committed blobs */
  uint64_t liveBytes;      /* their data */
  uint64_t packBytes;      /* current pack */
  uint64_t journalBytes;   /* current journal, pending changes included */
  uint64_t repackedBytes;  /* pack that a repack would write */
  uint64_t pendingChanges; /* changes since the last commit */
  int32_t damaged;         /* 1: the load has met damage */
  int32_t readOnly;        /* 1: opened with readOnly */
} BCStatistics;

/*
 * Fills in statistics->size bytes, those unknown to this library with 0. Walks
 * the index: about 10 ms for 100,000 blobs, for which a commit on another thread
 * waits. Returns 1; 0 on failure, also when size is smaller than the first
 * version's, which ended with pendingChanges.
 */
BLOBRING_API int BCGetStatistics(int index, BCStatistics* statistics);

/*
 * Copies the text of the last failure into `buffer`, cut to `capacity` bytes
 * with its NUL. Returns its whole length, at most 1023. With capacity 0, buffer
 * may be null. The text begins with the cause in a few words; the lines follow
 * as they went to the trace. A call that succeeds leaves it as it is.
 * Of this thread's last failing call on a store, if it named this index, whether
 * or not the store is still there; otherwise of the store's last failing call on
 * any thread. For -1, or another index that no store has: of the calls on this
 * thread that belong to no store, such as a BCOpen that failed.
 */
BLOBRING_API int BCLastError(int index, char* buffer, int capacity);

/* Codes of failures. */
#define BLOBRING_ERROR_NONE 0
#define BLOBRING_ERROR_HELD 1       /* another opener has a file */
#define BLOBRING_ERROR_FULL 2       /* the disk, a quota, or a file at its limit */
#define BLOBRING_ERROR_DAMAGED 3    /* bytes on disk are not what a store wrote */
#define BLOBRING_ERROR_IN_DOUBT 4   /* a flush has failed */
#define BLOBRING_ERROR_CLOSED 5     /* the store is closed or not loaded */
#define BLOBRING_ERROR_NO_STORE 6   /* no store there, or no such index */
#define BLOBRING_ERROR_ARGUMENT 7   /* an invalid argument */
#define BLOBRING_ERROR_IO 8         /* the system refused a call */
#define BLOBRING_ERROR_MEMORY 9     /* no memory */
#define BLOBRING_ERROR_READ_ONLY 10 /* a change to a store opened with readOnly */
#define BLOBRING_ERROR_REFUSED 11   /* not possible now; the text says why */
#define BLOBRING_ERROR_NOT_FOUND 12 /* no such blob, file or directory */

/* Returns the code of the failure that BCLastError has the text of. */
BLOBRING_API int BCLastErrorCode(int index);

/*
 * Returns a few words for a code: "there is no space left". Static storage;
 * "unknown code" for a code that this library does not have.
 */
BLOBRING_API const char* BCErrorText(int code);

/*
 * Returns what GetLastError said of the system call behind that failure, as the
 * text ends with it: 5 access denied, 112 disk full (Win32 API reference, System
 * Error Codes). 0 if no call of the system has failed: BLOBRING_ERROR_FULL is
 * then a file at its limit.
 */
BLOBRING_API int BCLastSystemError(int index);

/* ---- Beside the store ----------------------------------------------------- */

/*
 * Writes the MD5 digest of `length` bytes at `data` to `digest` (16 bytes).
 * BCMD5ChkSum returns 1; BCMD5ChkSumInt returns 1, or 0 on failure.
 */
BLOBRING_API int BCMD5ChkSum(const unsigned char* data, unsigned int length, unsigned char* digest);
BLOBRING_API int BCMD5ChkSumInt(const unsigned char* data, unsigned int length,
                                unsigned char* digest);

/* Do nothing and return 1. */
BLOBRING_API int BCCacheClear(void);
BLOBRING_API int BCCacheStats(void);

/* For the embedder's own use; 0 when the library is loaded. */
extern BLOBRING_API int cur;

/* Handle of the trace ring buffer; 0 before the first store. */
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
 * Filter for structured exception handling around calls on a store. For an
 * access violation checks the store and returns 1: take the exception. Returns
 * 0 for any other code: go on searching. May be called inside a call on the
 * store; after a 1, that call is taken to have ended.
 */
BLOBRING_API int FilterException(int index, unsigned int code, _EXCEPTION_POINTERS* info);
#endif

#endif
