/*
 * What a program that embeds Blobring can see and set of the platform layer
 * under it: where messages go, what was traced, how much memory is taken.
 *
 * Everything here is optional. Without a call, errors go to standard error
 * and the rest is kept in bounded memory. Every function may be called before
 * the first store is opened and after the last is gone, in static initialisers
 * and destructors as well.
 *
 * Threads: any thread may call any function at any time. A function of the
 * host's runs on the thread that caused it. It must not throw. A sink runs in
 * the middle of a call: of the library it may call BCLastError and the
 * functions of this header, nothing else. After it was exchanged, another
 * thread may still be in the old one.
 * Memory: callers own every structure passed; strings handed to a function of
 * the host's are valid until it returns.
 */
#ifndef BLOBRING_HOST_H
#define BLOBRING_HOST_H

#include "blobring/blobring.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Messages ------------------------------------------------------------- */

/* Levels of a message. */
#define BLOBRING_HOST_ERROR 1
#define BLOBRING_HOST_WARNING 2

/*
 * Takes one message: its level, the name of its source and its text. The text
 * is whole, has no line end of its own, but may contain some.
 */
typedef void BlobringHostTraceSink(void* context, int level, const char* source, const char* text);

/*
 * Sends warnings and errors to `sink`. Null: back to the default, which
 * writes errors to standard error, one line each, "Blobring error: " and the
 * text. It leaves out warnings and the retries of a held file.
 */
BLOBRING_API void BlobringHostSetTraceSink(BlobringHostTraceSink* sink, void* context);

/* ---- Trace level and raw trace -------------------------------------------- */

#define BLOBRING_HOST_DEFAULT_TRACE_LEVEL 40000U

/* From this level on, damaged blobs are dumped to the raw trace. */
#define BLOBRING_HOST_DUMP_TRACE_LEVEL 60000U

/* Sets the trace level; BLOBRING_HOST_DEFAULT_TRACE_LEVEL until then. */
BLOBRING_API void BlobringHostSetTraceLevel(uint32_t level);

/* Takes `length` bytes of the raw trace as they are, line ends included. */
typedef void BlobringHostRawSink(void* context, const char* bytes, uint32_t length);

/* Sends the raw trace to `sink`. Null, the default: there is none. */
BLOBRING_API void BlobringHostSetRawSink(BlobringHostRawSink* sink, void* context);

/* ---- Call events and numeric trace ---------------------------------------- */

#define BLOBRING_HOST_RECORD_COUNT 1024

/* A call on a store. */
typedef struct BlobringHostEvent {
  uint32_t sequence; /* of the first event ever 0, and up; wraps at 2^32 */
  uint32_t threadId;
  uint32_t ring; /* 0 before the first BCInitialize */
  uint32_t kind;
  uint32_t values[4];
} BlobringHostEvent;

/* A record of the numeric trace. */
typedef struct BlobringHostNumericRecord {
  uint32_t sequence; /* as above */
  uint32_t threadId;
  uint32_t id;
  uint32_t valueCount; /* 0 to 4 */
  uint32_t values[4];  /* the rest 0 */
} BlobringHostNumericRecord;

/*
 * Reads on from *position, which starts as 0: copies at most `capacity` of the
 * newest BLOBRING_HOST_RECORD_COUNT records, oldest first, moves *position
 * past them and returns how many they are. *missed, unless null, is set to the
 * number of records since *position that can no longer be had.
 */
BLOBRING_API uint32_t BlobringHostReadEvents(uint32_t* position, BlobringHostEvent* events,
                                             uint32_t capacity, uint32_t* missed);
BLOBRING_API uint32_t BlobringHostReadNumericTrace(uint32_t* position,
                                                   BlobringHostNumericRecord* records,
                                                   uint32_t capacity, uint32_t* missed);

/* ---- Exceptions ----------------------------------------------------------- */

/*
 * Takes the platform exception that BCGet raises for a blob that is absent or
 * of another size. BCGet returns when it does; the handler may also leave by a
 * jump, and make calls on stores. Without a handler, the exception has no effect.
 */
typedef void BlobringHostExceptionHandler(void* context, uint32_t code, uint32_t flags,
                                          uint32_t argumentCount, const uintptr_t* arguments);

/* Sets the handler of platform exceptions; null for none. */
BLOBRING_API void BlobringHostSetExceptionHandler(BlobringHostExceptionHandler* handler,
                                                  void* context);

/* ---- Memory --------------------------------------------------------------- */

/* Distinct (pool, tag) pairs that are tracked; all others share one account. */
#define BLOBRING_HOST_MEMORY_ACCOUNT_COUNT 64
#define BLOBRING_HOST_MEMORY_OTHERS 0xFFFFFFFFU

/* Memory of one pool and tag, or of all. */
typedef struct BlobringHostMemoryUse {
  uint32_t pool; /* both BLOBRING_HOST_MEMORY_OTHERS in the account of the */
  uint32_t tag;  /* rest and in the total */
  uint64_t liveBlocks;
  uint64_t liveBytes;       /* as they were asked for */
  uint64_t peakBytes;       /* the most that liveBytes ever was */
  uint64_t allocationCount; /* ever */
  uint64_t failureCount;    /* allocations that gave nothing */
} BlobringHostMemoryUse;

/*
 * Copies at most `capacity` accounts, in the order of their first use.
 * Returns how many there are. `accounts` may be null if `capacity` is 0.
 */
BLOBRING_API uint32_t BlobringHostMemoryByTag(BlobringHostMemoryUse* accounts, uint32_t capacity);

/* Sets *total to the sum; its peakBytes is that of the sum. */
BLOBRING_API void BlobringHostMemoryTotal(BlobringHostMemoryUse* total);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
