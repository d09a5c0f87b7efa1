#include "tools/Trace.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

#include "blobring/host.h"

namespace tool {
namespace {

constexpr size_t kMaxLines = 1000;

TraceCapture* innermost = nullptr;

void TakeLine(void* /*context*/, int level, const char* /*source*/, const char* text) {
  if (innermost != nullptr) innermost->Add({level == BLOBRING_HOST_ERROR, text});
}

struct CodeAdvice {
  int code;
  const char* advice;
};
// Codes of the Win32 API reference that a user can do something about.
constexpr std::array kAdvice = {
    CodeAdvice{4, "too many files are open; raise the limit (ulimit -n)"},
    CodeAdvice{5, "permission is denied; look at the owner and mode of the store's files"},
    CodeAdvice{8, "memory is short"},
    CodeAdvice{19, "the file system is read-only"},
    CodeAdvice{32, "another process has the store open; wait until it is done and try again"},
    CodeAdvice{39, "the disk is full; free some space and try again, what was committed is safe"},
    CodeAdvice{112, "the disk is full; free some space and try again, what was committed is safe"},
    CodeAdvice{223, "a file may not grow further; look at the limit on file sizes (ulimit -f)"},
    CodeAdvice{1117, "the disk reports an error; look at the system's log"},
};

}  // namespace

std::string AdviceFor(const std::string& text) {
  if (text.find("no room for") != std::string::npos)
    return "the journal is full; run `blobring repack` and try again, what was committed is safe";
  constexpr std::string_view kMark = "GetLastError";
  const size_t mark = text.find(kMark);
  if (mark == std::string::npos) return {};
  const auto digit = std::find_if(text.begin() + static_cast<std::ptrdiff_t>(mark), text.end(),
                                  [](unsigned char c) { return std::isdigit(c) != 0; });
  int code = 0;
  for (auto at = digit; at != text.end() && std::isdigit(static_cast<unsigned char>(*at)) != 0 && code < 10000; ++at)
    code = code * 10 + (*at - '0');
  for (const CodeAdvice& row : kAdvice)
    if (row.code == code) return row.advice;
  return {};
}

TraceCapture::TraceCapture() : outer_(std::exchange(innermost, this)) {}

TraceCapture::~TraceCapture() {
  innermost = outer_;
}

void TraceCapture::Install() {
  BlobringHostSetTraceSink(TakeLine, nullptr);
}

void TraceCapture::Add(TraceLine line) {
  // The last line says how it ended, so that one is never the one to go.
  if (lines_.size() == kMaxLines) lines_.pop_back();
  lines_.push_back(std::move(line));
}

std::string TraceCapture::Reason() const {
  if (lines_.empty()) return "no reason was given";
  const std::string& reason = lines_.back().text;
  for (const TraceLine& line : lines_) {
    const std::string advice = AdviceFor(line.text);
    if (!advice.empty()) return fmt::format("{}; {}", reason, advice);
  }
  return reason;
}

}  // namespace tool
