// The store's channels to the platform's diagnostics: four sources of text lines, one for each
// group of files, and the per-call events with their numeric records. Nothing here throws, and a
// lost record is never noticed.
#pragma once

#include <array>
#include <cstdint>
#include <exception>
#include <string>
#include <type_traits>

#include "platform/Diagnostics.h"
#include "platform/Export.h"
#include "platform/Failure.h"

using Vell::Common::System::OS::Diagnostics::VellTrace;

extern "C" {
extern BLOBRING_EXPORT std::uint32_t g_BlobControllerRingBuffer;
extern BLOBRING_EXPORT std::uint32_t g_TraceDeviceRaw;
}

namespace trace {

// Called by no valid format; makes the compiler reject the others.
void FormatDoesNotMatchItsValues();

// A printf(3) format and, at compile time, the proof that its conversions take the values that are
// passed with it: %d any integer of up to 32 bits, %s texts, %p pointers.
template <class... Values>
struct Format {
  // NOLINTNEXTLINE(google-explicit-constructor): stands for the literal
  consteval Format(const char* literal) : text(literal) {
    constexpr std::array<char, sizeof...(Values) + 1> kWanted = {ConversionOf<Values>()..., '\0'};
    std::size_t next = 0;
    for (const char* c = literal; *c != '\0'; ++c) {
      if (*c == '%' && *++c != kWanted[next++]) FormatDoesNotMatchItsValues();
    }
    if (next != sizeof...(Values)) FormatDoesNotMatchItsValues();
  }

  template <class Value>
  static consteval char ConversionOf() {
    if (std::is_convertible_v<Value, std::string>) return 's';
    if (std::is_pointer_v<Value>) return 'p';
    return std::is_integral_v<Value> && sizeof(Value) <= sizeof(int) ? 'd' : '\0';
  }

  const char* text;
};
template <class... Values>
using FormatFor = Format<std::type_identity_t<Values>...>;

// What a value is to printf.
template <class Value>
Value ToPrint(Value value) {
  return value;
}
inline const char* ToPrint(const std::string& text) {
  return text.c_str();
}

// Adds a line to the text of the last failure, unless there is no memory for it.
void NoteLine(bool isError, const char* format, ...);

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"  // Format has proved more
// A source of text lines. Formats reach the platform as they stand. Warnings and errors are also
// part of the text of the last failure.
class Source {
 public:
  explicit Source(const char* name) : notes(name) {}

  template <class... Values>
  void WriteWarnV(FormatFor<Values...> format, const Values&... values) {
    NoteLine(false, format.text, ToPrint(values)...);
    notes.WriteWarnV(format.text, ToPrint(values)...);
  }
  template <class... Values>
  void WriteErrorV(FormatFor<Values...> format, const Values&... values) {
    NoteLine(true, format.text, ToPrint(values)...);
    notes.WriteErrorV(format.text, ToPrint(values)...);
  }

  // The message of a failure that was caught, whose code goes with it.
  template <class... Values>
  void CaughtWarnV(const std::exception& e, FormatFor<Values...> format, const Values&... values) {
    NoteCause(e);
    WriteWarnV<Values...>(format, values...);
  }
  template <class... Values>
  void CaughtErrorV(const std::exception& e, FormatFor<Values...> format, const Values&... values) {
    NoteCause(e);
    WriteErrorV<Values...>(format, values...);
  }

  VellTrace notes;  // for lines that tell of no failure
};
#pragma GCC diagnostic pop

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
