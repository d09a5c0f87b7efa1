// The platform's diagnostics, as the store calls them: text trace, numeric trace, ring buffer, raw
// trace device. Supplied at link time (see Win32.h). None of them throws; a channel that fails
// loses its record and no more.
#pragma once

#include <cstdint>

namespace Vell::Common::System::OS::Diagnostics {

// A named source of text lines, printf-style. Usable in static initialisers and destructors.
class VellTrace {
 public:
  explicit VellTrace(const char* name);
  ~VellTrace();
  VellTrace(const VellTrace&) = delete;
  VellTrace& operator=(const VellTrace&) = delete;

  void WriteWarnV(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void WriteErrorV(const char* format, ...) __attribute__((format(printf, 2, 3)));

 private:
  [[maybe_unused]] const char* name_;  // the caller's, a literal
};

}  // namespace Vell::Common::System::OS::Diagnostics

extern "C" {

// Stores the handle of the platform's ring buffer `number` through out.
int GetTraceRingBuffer(int number, std::uint32_t* out);

// Appends one event to a ring buffer; handle 0 is allowed.
int WriteEventToRingBuffer(std::uint32_t ring, std::uint32_t threadId, std::uint32_t kind,
                           std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d);

// One numeric record: an id and up to four values.
int RTTrace(std::uint32_t id);
int RTTrace_1(std::uint32_t id, std::uint32_t a);
int RTTrace_2(std::uint32_t id, std::uint32_t a, std::uint32_t b);
int RTTrace_3(std::uint32_t id, std::uint32_t a, std::uint32_t b, std::uint32_t c);
int RTTrace_4(std::uint32_t id, std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d);

// Blob data is dumped only at 60000 and above.
std::uint32_t TraceGetEffectiveLevel();

// Stores the handle of the named device through out, or leaves it 0.
int TraceDeviceFind(const char16_t* name, std::uint32_t* out);

// Writes the standard head of a line into buffer. Returns its length in bytes, 0 or less when it
// wrote none.
int TraceFormatHeader(char* buffer, std::uint32_t capacity, int level, int reserved,
                      const char* name);

// Writes length bytes to the device as they are.
int TraceDeviceWriteRaw(std::uint32_t device, const char* buffer, int length);

// Reports a misuse that ought to be impossible. Returns.
void DeviceFatalError(std::uint32_t code, const char* file, int line);
}
