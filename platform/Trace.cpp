#include "platform/Trace.h"

#include "platform/Win32.h"

std::uint32_t g_BlobControllerRingBuffer = 0;
std::uint32_t g_TraceDeviceRaw = 0;

namespace trace {

// Before every other static object and, at unload, after the last of them:
// stores that are still registered report while they are destroyed.
#define BLOBRING_FIRST __attribute__((init_priority(101)))
BLOBRING_FIRST VellTrace api("BlobController");
BLOBRING_FIRST VellTrace engine("BlobController");
BLOBRING_FIRST VellTrace pack("BlobController");
BLOBRING_FIRST VellTrace fileSystem("BlobController");

void WriteEvent(Event kind, std::uint32_t value) {
  WriteEventToRingBuffer(g_BlobControllerRingBuffer, GetCurrentThreadId(), kind, value, 0, 0, 0);
}

namespace {

std::uint32_t BigEndianWord(const unsigned char* bytes) {
  return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 | bytes[3];
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
  const std::uint32_t a = BigEndianWord(hash);
  const std::uint32_t b = BigEndianWord(hash + 4);
  const std::uint32_t c = BigEndianWord(hash + 8);
  const std::uint32_t d = BigEndianWord(hash + 12);
  WriteEventToRingBuffer(g_BlobControllerRingBuffer, GetCurrentThreadId(), kind, a, b, c, d);
  RTTrace_4(HashRecordId(kind), a, b, c, d);
}

}  // namespace trace
