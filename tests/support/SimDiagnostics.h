// The platform's diagnostics (platform/Diagnostics.h) for tests: keeps what
// the store reports, or only counts it where speed matters.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace sim {

struct TraceLine {
  bool error;  // else a warning
  std::string text;
};
struct NumericRecord {
  std::uint32_t id;
  unsigned count;  // of values
  std::array<std::uint32_t, 4> values;
};
struct RingEvent {
  std::uint32_t ring, threadId, kind;
  std::array<std::uint32_t, 4> values;
};

class SimDiagnostics {
 public:
  // Keep every record (the default), or count lines alone.
  void Record(bool on) { recording_ = on; }
  bool recording() const { return recording_; }
  void Clear();

  std::vector<TraceLine> lines;
  std::vector<NumericRecord> records;
  std::vector<RingEvent> events;
  std::vector<std::uint32_t> raised;        // codes given to RaiseException
  std::vector<std::uint32_t> fatalErrors;   // codes given to DeviceFatalError
  std::string raw;                          // what went to the raw trace device
  std::uint64_t lineCount = 0;

  std::uint32_t level = 0;        // TraceGetEffectiveLevel
  bool hasRawDevice = true;       // TraceDeviceFind finds "LogFile"

  // Whether a line of this text was written.
  bool HasWarning(const std::string& text) const { return Has(false, text); }
  bool HasError(const std::string& text) const { return Has(true, text); }
  // All lines, one under another, for a report.
  std::string Text() const;

  void Line(bool error, std::string text);
  void Raised(std::uint32_t code);
  void Numeric(const NumericRecord& record);

 private:
  bool Has(bool error, const std::string& text) const;
  bool recording_ = true;
};

SimDiagnostics& Diagnostics();

}  // namespace sim
