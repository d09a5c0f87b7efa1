#include "tests/support/SimDiagnostics.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "platform/Diagnostics.h"

namespace sim {

namespace {

constexpr std::uint32_t kRawDevice = 77;
constexpr char kLineHead[] = "HEAD";

std::string Formatted(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (length <= 0) return {};
  std::string text(static_cast<std::size_t>(length), '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, arguments);
  return text;
}

}  // namespace

SimDiagnostics& Diagnostics() {
  // Never destroyed: the store writes lines while the program ends.
  static auto* diagnostics = new SimDiagnostics;
  return *diagnostics;
}

void SimDiagnostics::Clear() {
  lines.clear();
  records.clear();
  events.clear();
  raised.clear();
  fatalErrors.clear();
  raw.clear();
  lineCount = 0;
}

bool SimDiagnostics::Has(bool error, const std::string& text) const {
  return std::any_of(lines.begin(), lines.end(),
                     [&](const TraceLine& line) { return line.error == error && line.text == text; });
}

std::string SimDiagnostics::Text() const {
  std::string all;
  for (const TraceLine& line : lines) all += (line.error ? "error   " : "warning ") + line.text + "\n";
  return all;
}

void SimDiagnostics::Line(bool error, std::string text) { lines.push_back({error, std::move(text)}); }

void SimDiagnostics::Raised(std::uint32_t code) {
  if (recording_) raised.push_back(code);
}

void SimDiagnostics::Numeric(const NumericRecord& record) {
  if (recording_) records.push_back(record);
}

}  // namespace sim

using sim::Diagnostics;

namespace Vell::Common::System::OS::Diagnostics {

VellTrace::VellTrace(const char* name) : name_(name) {}
VellTrace::~VellTrace() = default;

void VellTrace::WriteWarnV(const char* format, ...) {
  sim::SimDiagnostics& diagnostics = ::sim::Diagnostics();
  ++diagnostics.lineCount;
  if (!diagnostics.recording()) return;
  va_list arguments;
  va_start(arguments, format);
  diagnostics.Line(false, sim::Formatted(format, arguments));
  va_end(arguments);
}

void VellTrace::WriteErrorV(const char* format, ...) {
  sim::SimDiagnostics& diagnostics = ::sim::Diagnostics();
  ++diagnostics.lineCount;
  if (!diagnostics.recording()) return;
  va_list arguments;
  va_start(arguments, format);
  diagnostics.Line(true, sim::Formatted(format, arguments));
  va_end(arguments);
}

}  // namespace Vell::Common::System::OS::Diagnostics

extern "C" {

int GetTraceRingBuffer(int number, std::uint32_t* out) {
  *out = 100U + static_cast<std::uint32_t>(number);
  return 0;
}

int WriteEventToRingBuffer(std::uint32_t ring, std::uint32_t threadId, std::uint32_t kind, std::uint32_t a,
                           std::uint32_t b, std::uint32_t c, std::uint32_t d) {
  if (Diagnostics().recording()) Diagnostics().events.push_back({ring, threadId, kind, {a, b, c, d}});
  return 0;
}

int RTTrace(std::uint32_t id) { return Diagnostics().Numeric({id, 0, {}}), 0; }
int RTTrace_1(std::uint32_t id, std::uint32_t a) { return Diagnostics().Numeric({id, 1, {a, 0, 0, 0}}), 0; }

int RTTrace_2(std::uint32_t id, std::uint32_t a, std::uint32_t b) {
  return Diagnostics().Numeric({id, 2, {a, b, 0, 0}}), 0;
}

int RTTrace_3(std::uint32_t id, std::uint32_t a, std::uint32_t b, std::uint32_t c) {
  return Diagnostics().Numeric({id, 3, {a, b, c, 0}}), 0;
}

int RTTrace_4(std::uint32_t id, std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
  return Diagnostics().Numeric({id, 4, {a, b, c, d}}), 0;
}

std::uint32_t TraceGetEffectiveLevel() { return Diagnostics().level; }

int TraceDeviceFind(const char16_t* name, std::uint32_t* out) {
  *out = Diagnostics().hasRawDevice && std::u16string_view(name) == u"LogFile" ? sim::kRawDevice : 0;
  return 0;
}

int TraceFormatHeader(char* buffer, std::uint32_t capacity, int /*level*/, int /*reserved*/, const char* /*name*/) {
  if (capacity < sizeof(sim::kLineHead)) return 0;
  std::memcpy(buffer, sim::kLineHead, sizeof(sim::kLineHead));
  return sizeof(sim::kLineHead) - 1;
}

int TraceDeviceWriteRaw(std::uint32_t device, const char* buffer, int length) {
  if (device != sim::kRawDevice) return -1;
  Diagnostics().raw.append(buffer, static_cast<std::size_t>(length));
  return 0;
}

void DeviceFatalError(std::uint32_t code, const char* /*file*/, int /*line*/) {
  if (Diagnostics().recording()) Diagnostics().fatalErrors.push_back(code);
}
}
