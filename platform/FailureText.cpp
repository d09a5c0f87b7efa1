#include "platform/FailureText.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>

namespace trace {

namespace {

// The process's text outlives every static object that may still report: it
// is never destroyed.
union Lasting {
  constexpr Lasting() : failures() {}
  ~Lasting() {}
  FailureText failures;
};
constinit Lasting process;

// Counts the texts that are gone: a thread that has noted its own before the
// last one went does not know whether it still exists.
constinit std::atomic<std::uint32_t> goneCount{0};

struct Place {
  FailureText* text = nullptr;
  std::uint32_t goneCount = 0;
};
constinit thread_local Place place;

}  // namespace

FailureText::~FailureText() {
  goneCount.fetch_add(1, std::memory_order_relaxed);
}

void FailureText::StartOver() {
  if (!startsOver) return;
  startsOver = false;
  length = 0;
  code = FailureCode::None;
}

void FailureText::SetCode(FailureCode failureCode) {
  StartOver();
  if (code == FailureCode::None) code = failureCode;
}

void FailureText::Add(std::string_view line) {
  StartOver();
  if (length > 0 && length < kCapacity - 1) text[length++] = '\n';
  const std::size_t fits = std::min(line.size(), kCapacity - 1 - length);
  std::memcpy(text + length, line.data(), fits);
  length += fits;
  text[length] = '\0';
}

FailureText& ProcessFailures() {
  return process.failures;
}

void NoteIn(FailureText& text) {
  place = {&text, goneCount.load(std::memory_order_relaxed)};
  text.Begin();
}

void NoteInProcess() {
  NoteIn(process.failures);
}

namespace {

FailureText& OfThisCall() {
  const bool isThere = place.text != nullptr && place.goneCount == goneCount.load(std::memory_order_relaxed);
  return isThere ? *place.text : process.failures;
}

}  // namespace

void Note(const char* line) {
  OfThisCall().Add(line);
}

void NoteCause(const std::exception& e) {
  const auto* failure = dynamic_cast<const Failure*>(&e);
  OfThisCall().SetCode(failure != nullptr ? failure->code : FailureCode::Refused);
}

}  // namespace trace
