// The host's side of the store: messages, the raw trace device, call events and numeric records,
// exceptions.
//
// Threads: any. Everything is constant-initialised and never destroyed: usable from the first
// static initialiser to the last static destructor.
#include "platform/Diagnostics.h"

#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <utility>

#include "blobring/host.h"
#include "platform/posix/Kernel.h"

using platform::Guarded;
using platform::MutexOf;

namespace {

// A function of the host's and its context, which the host may exchange at any time.
template <typename Function>
class Callback {
 public:
  void Set(Function* function, void* context) {
    const std::lock_guard lock(MutexOf(Guarded::Callbacks));
    callback_ = {function, context};
  }

  // For a call without the lock, so that the function may call back in.
  std::pair<Function*, void*> Get() {
    const std::lock_guard lock(MutexOf(Guarded::Callbacks));
    return callback_;
  }

 private:
  std::pair<Function*, void*> callback_{nullptr, nullptr};
};

// The most recent records of a trace. A record's number counts from 0 and wraps at 2^32.
template <typename Record>
class Ring {
 public:
  int Append(Record record) {
    const std::lock_guard lock(MutexOf(Guarded::Records));
    record.sequence = next_++;
    records_[record.sequence % BLOBRING_HOST_RECORD_COUNT] = record;
    return 0;
  }

  // See BlobringHostReadEvents.
  std::uint32_t ReadOn(std::uint32_t* position, Record* out, std::uint32_t capacity,
                       std::uint32_t* missed) {
    const std::lock_guard lock(MutexOf(Guarded::Records));
    const auto kept = std::min<std::uint32_t>(next_ - *position, BLOBRING_HOST_RECORD_COUNT);
    const std::uint32_t first = next_ - kept;
    const std::uint32_t count = std::min(kept, capacity);
    for (std::uint32_t i = 0; i < count; ++i)
      out[i] = records_[(first + i) % BLOBRING_HOST_RECORD_COUNT];
    if (missed != nullptr) *missed = first - *position;
    *position = first + count;
    return count;
  }

 private:
  std::uint32_t next_ = 0;
  Record records_[BLOBRING_HOST_RECORD_COUNT] = {};
};

constexpr std::uint32_t kRawDevice = 1;

constinit std::atomic<std::uint32_t> traceLevel{BLOBRING_HOST_DEFAULT_TRACE_LEVEL};
constinit Callback<BlobringHostTraceSink> traceSink;
constinit Callback<BlobringHostRawSink> rawSink;
constinit Callback<BlobringHostExceptionHandler> exceptionHandler;
constinit Ring<BlobringHostEvent> events;
constinit Ring<BlobringHostNumericRecord> numericRecords;

// A held file is tried again and again, each time with a message. One before them says it.
bool IsRetry(std::string_view text) {
  return text.find(" sharing violation ") != text.npos && text.find(" retry ") != text.npos;
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
  } else if (level == BLOBRING_HOST_ERROR && !IsRetry(text)) {
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
  if (std::u16string_view(name) != u"LogFile" || rawSink.Get().first == nullptr) return -1;
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

// There is one ring buffer, whatever the number; the handle tells in each event which one its
// writer asked for.
int GetTraceRingBuffer(int number, std::uint32_t* out) {
  *out = 0x100 + static_cast<std::uint32_t>(number);
  return 0;
}

int WriteEventToRingBuffer(std::uint32_t ring, std::uint32_t threadId, std::uint32_t kind,
                           std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
  return events.Append({0, threadId, ring, kind, {a, b, c, d}});
}

int RTTrace(std::uint32_t id) {
  return numericRecords.Append({0, GetCurrentThreadId(), id, 0, {}});
}

int RTTrace_1(std::uint32_t id, std::uint32_t a) {
  return numericRecords.Append({0, GetCurrentThreadId(), id, 1, {a}});
}

int RTTrace_2(std::uint32_t id, std::uint32_t a, std::uint32_t b) {
  return numericRecords.Append({0, GetCurrentThreadId(), id, 2, {a, b}});
}

int RTTrace_3(std::uint32_t id, std::uint32_t a, std::uint32_t b, std::uint32_t c) {
  return numericRecords.Append({0, GetCurrentThreadId(), id, 3, {a, b, c}});
}

int RTTrace_4(std::uint32_t id, std::uint32_t a, std::uint32_t b, std::uint32_t c,
              std::uint32_t d) {
  return numericRecords.Append({0, GetCurrentThreadId(), id, 4, {a, b, c, d}});
}

void RaiseException(DWORD code, DWORD flags, DWORD argumentCount, const std::uintptr_t* arguments) {
  const auto [handler, context] = exceptionHandler.Get();
  if (handler != nullptr) handler(context, code, flags, argumentCount, arguments);
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

void BlobringHostSetExceptionHandler(BlobringHostExceptionHandler* handler, void* context) {
  exceptionHandler.Set(handler, context);
}

uint32_t BlobringHostReadEvents(uint32_t* position, BlobringHostEvent* out, uint32_t capacity,
                                uint32_t* missed) {
  return events.ReadOn(position, out, capacity, missed);
}

uint32_t BlobringHostReadNumericTrace(uint32_t* position, BlobringHostNumericRecord* out,
                                      uint32_t capacity, uint32_t* missed) {
  return numericRecords.ReadOn(position, out, capacity, missed);
}
