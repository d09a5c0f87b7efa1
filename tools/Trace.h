// The library's own words about a failure, kept for the tool's messages.
#pragma once

#include <string>
#include <vector>

namespace tool {

struct TraceLine {
  bool isError;  // otherwise a warning
  std::string text;
};

// Collects what the library traces while this lives, innermost first; without
// one, nothing is shown. Keeps the first lines and the last ones of a long run.
class TraceCapture {
 public:
  TraceCapture();
  ~TraceCapture();
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  // Takes trace lines from now on, in place of standard error. Once, at start.
  static void Install();

  void Add(TraceLine line);
  const std::vector<TraceLine>& lines() const { return lines_; }

  // The last line, which says what the operation as a whole came to, then what
  // the user can do about the system's error code if one is named.
  std::string Reason() const;

 private:
  TraceCapture* outer_;
  std::vector<TraceLine> lines_;
};

// What a user can do about the system error code in a text of the library
// ("… GetLastError code = 112"); empty for none or an unknown one.
std::string AdviceFor(const std::string& text);

}  // namespace tool
