#include "platform/Trace.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "platform/Failure.h"
#include "platform/Win32.h"

// Static probes (USDT), documented in docs/embedding.md: an instruction that does nothing until a
// tracer attaches. In a build without <sys/sdt.h> there is nothing.
#ifdef BLOBRING_PROBES
#include <sys/sdt.h>
#else
#define DTRACE_PROBE(provider, name) static_cast<void>(0)
#define DTRACE_PROBE1(provider, name, a) static_cast<void>(a)
#define DTRACE_PROBE2(provider, name, a, b) (static_cast<void>(a), static_cast<void>(b))
#endif

std::uint32_t g_BlobControllerRingBuffer = 0;
std::uint32_t g_TraceDeviceRaw = 0;

namespace trace {

// Before every other static object and, at unload, after the last of them: stores that are still
// registered report while they are destroyed.
#define BLOBRING_FIRST __attribute__((init_priority(101)))
BLOBRING_FIRST Source api("BlobController");
BLOBRING_FIRST Source engine("BlobController");
BLOBRING_FIRST Source pack("BlobController");
BLOBRING_FIRST Source fileSystem("BlobController");

namespace {

std::uint32_t BigEndianWord(const unsigned char* bytes) {
  return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
         std::uint32_t{bytes[2]} << 8 | bytes[3];
}

std::uint32_t HashRecordId(Event kind) {
  if (kind == kEventStore) return 0x4F00026C;
  if (kind == kEventDelete) return 0x4F00026D;
  if (kind == kEventGetSize) return 0x4F00026E;
  if (kind == kEventGet) return 0x4F00026F;
  if (kind == kEventDigest) return 0x4F000270;
  return 0x4F000271;
}

// Set by every opening, which other threads' calls do not wait for.
std::uint32_t Ring() {
  return std::atomic_ref(g_BlobControllerRingBuffer).load(std::memory_order_relaxed);
}

}  // namespace

void NoteLine(bool isError, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  char* line = nullptr;
  const int length = vasprintf(&line, format, arguments);
  va_end(arguments);
  if (length < 0) return;
  Note(line);
  DTRACE_PROBE2(blobring, failure, line, static_cast<int>(isError));
  std::free(line);
}

void WriteEvent(Event kind, std::uint32_t value) {
  if (kind == kEventOpen) DTRACE_PROBE(blobring, open);
  if (kind == kEventStartTransaction) DTRACE_PROBE1(blobring, start, value);
  if (kind == kEventEndTransaction) DTRACE_PROBE1(blobring, commit, value);
  if (kind == kEventRepack) DTRACE_PROBE(blobring, repack);
  if (kind == kEventLoad) DTRACE_PROBE(blobring, load);
  WriteEventToRingBuffer(Ring(), GetCurrentThreadId(), kind, value, 0, 0, 0);
}

void WriteHashEvent(Event kind, const unsigned char* hash) {
  if (kind == kEventGetSize) DTRACE_PROBE1(blobring, size, hash);
  if (kind == kEventGet) DTRACE_PROBE1(blobring, fetch, hash);
  if (kind == kEventDelete) DTRACE_PROBE1(blobring, remove, hash);
  if (kind == kEventStore) DTRACE_PROBE1(blobring, store, hash);
  const std::uint32_t a = BigEndianWord(hash);
  const std::uint32_t b = BigEndianWord(hash + 4);
  const std::uint32_t c = BigEndianWord(hash + 8);
  const std::uint32_t d = BigEndianWord(hash + 12);
  WriteEventToRingBuffer(Ring(), GetCurrentThreadId(), kind, a, b, c, d);
  RTTrace_4(HashRecordId(kind), a, b, c, d);
}

}  // namespace trace
