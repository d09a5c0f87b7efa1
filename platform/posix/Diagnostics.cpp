// The text trace, the raw trace device and fatal errors.
#include "platform/Diagnostics.h"

#include <time.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <string_view>

#include "blobring/host.h"
#include "platform/Win32.h"
#include "platform/posix/HostCallback.h"
#include "platform/posix/Messages.h"

namespace {

constexpr char kOwnName[] = "Blobring";
constexpr std::u16string_view kRawDeviceName = u"LogFile";
constexpr std::uint32_t kRawDevice = 1;

constinit std::atomic<std::uint32_t> traceLevel{BLOBRING_HOST_DEFAULT_TRACE_LEVEL};
constinit std::atomic<std::uint32_t> fatalErrorCount{0};
constinit platform::HostCallback<BlobringHostRawSink> rawSink;
constinit platform::HostCallback<BlobringHostFatalErrorHandler> fatalErrorHandler;

void ReportError(const char* format, ...) __attribute__((format(printf, 1, 2)));

void ReportError(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  platform::Report(BLOBRING_HOST_ERROR, kOwnName, format, arguments);
  va_end(arguments);
}

}  // namespace

namespace Vell::Common::System::OS::Diagnostics {

VellTrace::VellTrace(const char* name) : name_(name) {}

VellTrace::~VellTrace() {}  // nothing to end; the device's own library has something here

void VellTrace::WriteWarnV(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  platform::Report(BLOBRING_HOST_WARNING, name_, format, arguments);
  va_end(arguments);
}

void VellTrace::WriteErrorV(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  platform::Report(BLOBRING_HOST_ERROR, name_, format, arguments);
  va_end(arguments);
}

}  // namespace Vell::Common::System::OS::Diagnostics

std::uint32_t TraceGetEffectiveLevel() {
  return traceLevel.load(std::memory_order_relaxed);
}

int TraceDeviceFind(const char16_t* name, std::uint32_t* out) {
  if (name == nullptr || out == nullptr || name != kRawDeviceName || rawSink.Get().function == nullptr) return -1;
  *out = kRawDevice;
  return 0;
}

// "2024-02-29T12:34:56.789Z 4711 BlobController: "
int TraceFormatHeader(char* buffer, std::uint32_t capacity, int /*level*/, int /*reserved*/, const char* name) {
  const std::uint64_t now = platform::UtcMs();
  const auto seconds = static_cast<time_t>(now / 1000);
  tm utc{};
  if (buffer == nullptr || name == nullptr || gmtime_r(&seconds, &utc) == nullptr) return 0;
  const int length = std::snprintf(buffer, capacity, "%04d-%02d-%02dT%02d:%02d:%02d.%03uZ %u %s: ", utc.tm_year + 1900,
                                   utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                                   static_cast<unsigned>(now % 1000), GetCurrentThreadId(), name);
  return length >= 0 && static_cast<std::uint32_t>(length) < capacity ? length : 0;
}

int TraceDeviceWriteRaw(std::uint32_t device, const char* buffer, int length) {
  const auto [sink, context] = rawSink.Get();
  if (device != kRawDevice || sink == nullptr || buffer == nullptr || length < 0) return -1;
  sink(context, buffer, static_cast<std::uint32_t>(length));
  return length;
}

void DeviceFatalError(std::uint32_t code, const char* file, int line) {
  fatalErrorCount.fetch_add(1, std::memory_order_relaxed);
  ReportError("fatal error 0x%X at %s line %d", code, file, line);
  const auto [handler, context] = fatalErrorHandler.Get();
  if (handler != nullptr) handler(context, code, file, line);
}

void BlobringHostSetTraceLevel(uint32_t level) {
  traceLevel.store(level, std::memory_order_relaxed);
}

void BlobringHostSetRawSink(BlobringHostRawSink* sink, void* context) {
  rawSink.Set(sink, context);
}

void BlobringHostSetFatalErrorHandler(BlobringHostFatalErrorHandler* handler, void* context) {
  fatalErrorHandler.Set(handler, context);
}

uint32_t BlobringHostFatalErrorCount() {
  return fatalErrorCount.load(std::memory_order_relaxed);
}
