// The store's channels to the platform's diagnostics: four sources of text lines, one for each
// group of files, and the per-call events with their numeric records. Nothing here throws, and a
// lost record is never noticed.
#pragma once

#include <cstdint>

#include "platform/Diagnostics.h"
#include "platform/Export.h"

using Vell::Common::System::OS::Diagnostics::VellTrace;

extern "C" {
extern BLOBRING_EXPORT std::uint32_t g_BlobControllerRingBuffer;
extern BLOBRING_EXPORT std::uint32_t g_TraceDeviceRaw;
}

namespace trace {

// A source of text lines, formatted as printf(3) does. Warnings and errors are also part of the
// text of the last failure. A line for which there is no memory is lost.
class Source {
 public:
  explicit Source(const char* name) : notes(name) {}

  void WriteWarnV(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void WriteErrorV(const char* format, ...) __attribute__((format(printf, 2, 3)));

  VellTrace notes;  // for lines that tell of no failure
};

extern Source api;
extern Source engine;  // BlobPair::isValid writes here, too
extern Source pack;
extern Source fileSystem;

// The code of the store's own faults, towards the platform.
constexpr std::uint32_t kFaultCode = 0x49380D;

// Event kinds of the ring buffer.
enum Event : std::uint32_t {
  kEventOpen = 1,
  kEventStartTransaction = 2,
  kEventEndTransaction = 3,
  kEventGetSize = 5,
  kEventGet = 6,
  kEventDelete = 7,
  kEventStore = 8,
  kEventRepack = 9,
  kEventLoad = 10,
  kEventEnumerateReset = 12,
  kEventEnumerate = 13,
  kEventDigest = 14,
};

// Appends an event with one value to the ring buffer.
void WriteEvent(Event kind, std::uint32_t value);

// Appends an event with a hash of 16 bytes, as four words whose hexadecimal digits spell it, and
// writes the numeric record that belongs to the kind.
void WriteHashEvent(Event kind, const unsigned char* hash);

}  // namespace trace
