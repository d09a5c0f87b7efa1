/*
 * What a program that embeds Blobring can see and set of the platform layer
 * under it: where messages go, what was traced, how much memory is taken.
 *
 * Everything here is optional; without a call, errors go to standard error
 * and the rest is kept in bounded memory. Usable at any time, before the
 * first store and after the last, from the first static initialiser to the
 * last static destructor.
 *
 * Threads: any thread may call any function at any time. Functions of the
 * host's run on the thread that caused them, without any lock held, so they
 * may call back into the library. After one was exchanged, a thread that was
 * about to call the old one may still do so.
 * Functions of the host's must not throw.
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
 * Takes one message: its level, the name of its source and its text, which
 * has no line end of its own but may contain some. At most 4095 bytes; the
 * rest of a longer text is lost.
 */
typedef void BlobringHostTraceSink(void* context, int level, const char* source, const char* text);

/*
 * Sends warnings and errors to `sink`. Null: back to the default, which
 * writes errors to standard error, one line each, "Blobring error: " and the
 * text, and warnings nowhere.
 */
BLOBRING_API void BlobringHostSetTraceSink(BlobringHostTraceSink* sink, void* context);

#define BLOBRING_HOST_MESSAGE_COUNT 64
#define BLOBRING_HOST_SOURCE_SIZE 28
#define BLOBRING_HOST_TEXT_SIZE 464

/* A message that was kept. */
typedef struct BlobringHostMessage {
  uint64_t timeMs;                        /* since 1970-01-01 UTC */
  uint32_t sequence;                      /* of the first message ever 0, and up */
  uint32_t threadId;                      /* of the system's */
  int32_t level;                          /* BLOBRING_HOST_... */
  char source[BLOBRING_HOST_SOURCE_SIZE]; /* NUL-terminated, cut to fit */
  char text[BLOBRING_HOST_TEXT_SIZE];     /* the same; " ... " stands for the middle of one too long */
} BlobringHostMessage;

/*
 * Copies the most recent warnings and errors, whatever the sink, oldest
 * first: at most `capacity` and at most BLOBRING_HOST_MESSAGE_COUNT. Returns
 * how many. *total, unless null, is set to how many there ever were.
 */
BLOBRING_API uint32_t BlobringHostRecentMessages(BlobringHostMessage* messages, uint32_t capacity, uint32_t* total);

/* ---- Trace level and raw trace -------------------------------------------- */

#define BLOBRING_HOST_DEFAULT_TRACE_LEVEL 40000U

/* From this level on, damaged blobs are dumped to the raw trace. */
#define BLOBRING_HOST_DUMP_TRACE_LEVEL 60000U

BLOBRING_API void BlobringHostSetTraceLevel(uint32_t level);

/* Takes `length` bytes of the raw trace as they are, line ends included. */
typedef void BlobringHostRawSink(void* context, const char* bytes, uint32_t length);

/* Sends the raw trace to `sink`; null, the default: there is none. */
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
 * Read on from *position, which starts as 0 and is moved past what was read:
 * copy at most `capacity` of the newest BLOBRING_HOST_RECORD_COUNT records,
 * oldest first, and return how many. *missed, unless null, is set to how many
 * records since *position can no longer be had. A record that is just being
 * written ends the reading; it comes with the next call.
 */
BLOBRING_API uint32_t BlobringHostReadEvents(uint32_t* position, BlobringHostEvent* events, uint32_t capacity,
                                             uint32_t* missed);
BLOBRING_API uint32_t BlobringHostReadNumericTrace(uint32_t* position, BlobringHostNumericRecord* records,
                                                   uint32_t capacity, uint32_t* missed);

/* ---- Exceptions and misuse ------------------------------------------------ */

/*
 * Takes the platform exception that BCGet raises for a blob that is absent or
 * of another size. Its returning lets BCGet go on. Without a handler, the
 * exception has no effect.
 */
typedef void BlobringHostExceptionHandler(void* context, uint32_t code, uint32_t flags, uint32_t argumentCount,
                                          const uintptr_t* arguments);
BLOBRING_API void BlobringHostSetExceptionHandler(BlobringHostExceptionHandler* handler, void* context);

/*
 * Takes a misuse inside the library that ought to be impossible, after it was
 * reported as an error message. It may end the process.
 */
typedef void BlobringHostFatalErrorHandler(void* context, uint32_t code, const char* file, int line);
BLOBRING_API void BlobringHostSetFatalErrorHandler(BlobringHostFatalErrorHandler* handler, void* context);

/* How many there were. */
BLOBRING_API uint32_t BlobringHostFatalErrorCount(void);

/* ---- Memory --------------------------------------------------------------- */

/* At most so many pairs of pool and tag are told apart; the rest is one. */
#define BLOBRING_HOST_MEMORY_ACCOUNT_COUNT 64
#define BLOBRING_HOST_MEMORY_OTHERS 0xFFFFFFFFU

/*
 * Memory of one pool and tag, or of all. Bytes are those of whole blocks: a
 * block is rounded up to 8 bytes, one of more than 1024 by up to a page.
 */
typedef struct BlobringHostMemoryUse {
  uint32_t pool; /* both BLOBRING_HOST_MEMORY_OTHERS in the account of the */
  uint32_t tag;  /* rest and in the total */
  uint64_t liveBlocks;
  uint64_t liveBytes;
  uint64_t peakBytes;       /* the most that liveBytes ever was */
  uint64_t allocationCount; /* ever */
  uint64_t failureCount;    /* allocations that gave nothing */
  uint64_t systemBytes;     /* taken from the system for this, overhead and reserve included */
} BlobringHostMemoryUse;

/*
 * Copies at most `capacity` accounts, in the order of their first use;
 * returns how many there are. `accounts` may be null where `capacity` is 0.
 */
BLOBRING_API uint32_t BlobringHostMemoryByTag(BlobringHostMemoryUse* accounts, uint32_t capacity);

/* Sets *total to the sum; its peakBytes is that of the sum. */
BLOBRING_API void BlobringHostMemoryTotal(BlobringHostMemoryUse* total);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
