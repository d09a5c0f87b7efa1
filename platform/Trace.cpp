#include "platform/Trace.h"

#include "platform/Failure.h"
#include "platform/Probes.h"
#include "platform/Win32.h"

std::uint32_t g_BlobControllerRingBuffer = 0;
std::uint32_t g_TraceDeviceRaw = 0;

namespace trace {

// Before every other static object and, at unload, after the last of them:
// stores that are still registered report while they are destroyed.
#define BLOBRING_FIRST __attribute__((init_priority(101)))
BLOBRING_FIRST Source api("BlobController");
BLOBRING_FIRST Source engine("BlobController");
BLOBRING_FIRST Source pack("BlobController");
BLOBRING_FIRST Source fileSystem("BlobController");

void NoteFailure(const char* line, bool isError) {
  Note(line);
  BLOBRING_PROBE2(failure, line, isError ? 1 : 0);
}

namespace {

void ProbeEvent(Event kind, [[maybe_unused]] std::uint32_t value) {
  switch (kind) {
    case kEventOpen:
      BLOBRING_PROBE(open);
      break;
    case kEventStartTransaction:
      BLOBRING_PROBE1(start, value);
      break;
    case kEventEndTransaction:
      BLOBRING_PROBE1(commit, value);
      break;
    case kEventRepack:
      BLOBRING_PROBE(repack);
      break;
    case kEventLoad:
      BLOBRING_PROBE(load);
      break;
    default:
      break;
  }
}

void ProbeHash(Event kind, [[maybe_unused]] const unsigned char* hash) {
  switch (kind) {
    case kEventGetSize:
      BLOBRING_PROBE1(size, hash);
      break;
    case kEventGet:
      BLOBRING_PROBE1(fetch, hash);
      break;
    case kEventDelete:
      BLOBRING_PROBE1(remove, hash);
      break;
    case kEventStore:
      BLOBRING_PROBE1(store, hash);
      break;
    default:
      break;
  }
}

}  // namespace

void WriteEvent(Event kind, std::uint32_t value) {
  ProbeEvent(kind, value);
  WriteEventToRingBuffer(g_BlobControllerRingBuffer, GetCurrentThreadId(), kind, value, 0, 0, 0);
}

namespace {

std::uint32_t BigEndianWord(const unsigned char* bytes) {
  return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
         std::uint32_t{bytes[2]} << 8 | bytes[3];
}

std::uint32_t HashRecordId(Event kind) {
  switch (kind) {
    case kEventStore:
      return 0x4F00026C;
    case kEventDelete:
      return 0x4F00026D;
    case kEventGetSize:
      return 0x4F00026E;
    case kEventGet:
      return 0x4F00026F;
    case kEventDigest:
      return 0x4F000270;
    default:
      return 0x4F000271;
  }
}

}  // namespace

void WriteHashEvent(Event kind, const unsigned char* hash) {
  ProbeHash(kind, hash);
  const std::uint32_t a = BigEndianWord(hash);
  const std::uint32_t b = BigEndianWord(hash + 4);
  const std::uint32_t c = BigEndianWord(hash + 8);
  const std::uint32_t d = BigEndianWord(hash + 12);
  WriteEventToRingBuffer(g_BlobControllerRingBuffer, GetCurrentThreadId(), kind, a, b, c, d);
  RTTrace_4(HashRecordId(kind), a, b, c, d);
}

}  // namespace trace
