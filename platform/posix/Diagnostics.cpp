// Where the store's messages go: the host's sink or standard error; and the raw trace device.
#include "platform/Diagnostics.h"

#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "blobring/host.h"
#include "platform/Win32.h"
#include "platform/posix/HostCallback.h"

namespace {

constexpr std::uint32_t kRawDevice = 1;

constinit std::atomic<std::uint32_t> traceLevel{BLOBRING_HOST_DEFAULT_TRACE_LEVEL};
constinit platform::HostCallback<BlobringHostTraceSink> traceSink;
constinit platform::HostCallback<BlobringHostRawSink> rawSink;

// A held file is tried again and again, each time with a message.
bool IsAnotherRetry(std::string_view text) {
  const std::size_t at = text.rfind(" retry ");
  return at != text.npos && text.find(" sharing violation ") != text.npos &&
         text.substr(at) != " retry 0";
}

// One write for the whole line, so that lines of several writers do not mix. Line breaks in the
// text, which a file name may hold, would fake more lines.
void WriteErrorLine(char* text, std::size_t length) {
  std::replace_if(
      text, text + length, [](char c) { return c == '\n' || c == '\r'; }, ' ');
  char head[] = "Blobring error: ";
  char end[] = "\n";
  const iovec line[] = {{head, sizeof head - 1}, {text, length}, {end, 1}};
  [[maybe_unused]] const ssize_t ignored = writev(STDERR_FILENO, line, 3);
}

// A message for which there is no memory is lost.
__attribute__((format(printf, 3, 0))) void Report(int level, const char* source, const char* format,
                                                  std::va_list arguments) {
  char* text = nullptr;
  int length = vasprintf(&text, format, arguments);
  if (length < 0) return;
  while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r'))
    text[--length] = '\0';
  if (const auto [sink, context] = traceSink.Get(); sink != nullptr) {
    sink(context, level, source, text);
  } else if (level == BLOBRING_HOST_ERROR && !IsAnotherRetry(text)) {
    WriteErrorLine(text, static_cast<std::size_t>(length));
  }
  std::free(text);
}

}  // namespace

namespace Vell::Common::System::OS::Diagnostics {

VellTrace::VellTrace(const char* name) : name_(name) {}

VellTrace::~VellTrace() {}  // nothing to end; the device's own library has something here

void VellTrace::WriteWarnV(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  Report(BLOBRING_HOST_WARNING, name_, format, arguments);
  va_end(arguments);
}

void VellTrace::WriteErrorV(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  Report(BLOBRING_HOST_ERROR, name_, format, arguments);
  va_end(arguments);
}

}  // namespace Vell::Common::System::OS::Diagnostics

std::uint32_t TraceGetEffectiveLevel() {
  return traceLevel.load(std::memory_order_relaxed);
}

int TraceDeviceFind(const char16_t* name, std::uint32_t* out) {
  if (std::u16string_view(name) != u"LogFile" || rawSink.Get().function == nullptr) return -1;
  *out = kRawDevice;
  return 0;
}

// "2024-02-29T12:34:56.789Z 4711 BlobController: "
int TraceFormatHeader(char* buffer, std::uint32_t capacity, int /*level*/, int /*reserved*/,
                      const char* name) {
  timespec now{};
  tm utc{};
  if (clock_gettime(CLOCK_REALTIME, &now) != 0 || gmtime_r(&now.tv_sec, &utc) == nullptr) return 0;
  const int length = std::snprintf(
      buffer, capacity, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ %u %s: ", utc.tm_year + 1900,
      utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
      static_cast<int>(now.tv_nsec / 1'000'000), GetCurrentThreadId(), name);
  return length >= 0 && static_cast<std::uint32_t>(length) < capacity ? length : 0;
}

int TraceDeviceWriteRaw(std::uint32_t device, const char* buffer, int length) {
  const auto [sink, context] = rawSink.Get();
  if (device != kRawDevice || sink == nullptr || length < 0) return -1;
  sink(context, buffer, static_cast<std::uint32_t>(length));
  return length;
}

void DeviceFatalError(std::uint32_t code, const char* file, int line) {
  Vell::Common::System::OS::Diagnostics::VellTrace("Blobring")
      .WriteErrorV("fatal error 0x%X at %s line %d", code, file, line);
}

void BlobringHostSetTraceSink(BlobringHostTraceSink* sink, void* context) {
  traceSink.Set(sink, context);
}

void BlobringHostSetTraceLevel(uint32_t level) {
  traceLevel.store(level, std::memory_order_relaxed);
}

void BlobringHostSetRawSink(BlobringHostRawSink* sink, void* context) {
  rawSink.Set(sink, context);
}
