// The store's channels to the platform's diagnostics: four sources of text
// lines, one for each group of files, the per-call events and their numeric
// records. Nothing here throws, and a lost record is never noticed.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>
#include <type_traits>

#include "platform/Diagnostics.h"
#include "platform/Export.h"

using Vell::Common::System::OS::Diagnostics::VellTrace;

extern "C" {
extern BLOBRING_EXPORT std::uint32_t g_BlobControllerRingBuffer;
extern BLOBRING_EXPORT std::uint32_t g_TraceDeviceRaw;
}

namespace trace {

// Called by no valid format; makes the compiler reject the others.
void FormatDoesNotMatchItsValues();

// A printf format and, at compile time, the proof that its conversions (%d, %u,
// %s, %p) take the values that are passed with it.
template <class... Values>
struct Format {
  consteval Format(const char* literal)
      : text(literal) {  // NOLINT(google-explicit-constructor): stands for the literal
    constexpr std::array<char, sizeof...(Values) + 1> kWanted = {ConversionOf<Values>()..., '\0'};
    std::size_t next = 0;
    for (const char* c = literal; *c != '\0'; ++c) {
      if (*c == '%' && *++c != kWanted[next++]) FormatDoesNotMatchItsValues();
    }
    if (next != sizeof...(Values)) FormatDoesNotMatchItsValues();
  }

  template <class Value>
  static consteval char ConversionOf() {
    if (std::is_convertible_v<Value, const char*>) return 's';
    if (std::is_pointer_v<Value>) return 'p';
    return std::is_unsigned_v<Value> ? 'u' : 'd';
  }

  const char* text;
};
template <class... Values>
using FormatFor = Format<std::type_identity_t<Values>...>;

// Adds a line to the text of the last failure (api/FailureText.h).
void NoteFailure(const char* line, bool isError);

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"  // Format has checked it

// A source of text lines. Warnings and errors are also part of the text of the
// last failure; notes, which tell of none, are not. Formats and values reach
// the platform as they are; a text that was put together is passed through "%s".
class Source {
 public:
  explicit Source(const char* name) : out(name) {}

  template <class... Values>
  void WriteWarnV(FormatFor<Values...> format, Values... values) {
    NoteFailure(Formatted(format.text, values...).c_str(), false);
    out.WriteWarnV(format.text, values...);
  }
  template <class... Values>
  void WriteErrorV(FormatFor<Values...> format, Values... values) {
    NoteFailure(Formatted(format.text, values...).c_str(), true);
    out.WriteErrorV(format.text, values...);
  }
  template <class... Values>
  void NoteWarnV(FormatFor<Values...> format, Values... values) {
    out.WriteWarnV(format.text, values...);
  }
  template <class... Values>
  void NoteErrorV(FormatFor<Values...> format, Values... values) {
    out.WriteErrorV(format.text, values...);
  }

 private:
  template <class... Values>
  static std::string Formatted(const char* format, Values... values) {
    const int length = std::snprintf(nullptr, 0, format, values...);
    std::string text(length < 0 ? 0 : static_cast<std::size_t>(length), '\0');
    std::snprintf(text.data(), text.size() + 1, format, values...);
    return text;
  }

  VellTrace out;
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

// Appends an event with a hash of 16 bytes, as four words whose hexadecimal
// digits spell it, and writes the numeric record that belongs to the kind.
void WriteHashEvent(Event kind, const unsigned char* hash);

}  // namespace trace
