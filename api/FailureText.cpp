#include "api/FailureText.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace api {

namespace {

// In one object, which takes one call to find.
struct Texts {
  FailureText without, onStores;
  bool isOnStore = false;
};
constinit thread_local Texts ofThread;

constexpr std::string_view kSeparator = ": ";

struct Cause {
  const char* words;
  bool beginsText = false;  // where the store's own words do not say it
};
constexpr Cause kCauses[] = {
    {"no failure"},
    {"another opener has a file of the store", true},
    {"there is no space left", true},
    {"what is on disk is not what a store wrote", true},
    {"what the disk holds is unknown", true},
    {"the store is closed or not loaded"},
    {"no store there, or no such index"},
    {"an invalid argument"},
    {"the system refused a call", true},
    {"there is no memory", true},
    {"the store was opened for reading"},
    {"not possible now"},
    {"there is no such blob, file or directory", true},
};
static_assert(std::size(kCauses) == static_cast<int>(FailureCode::NotFound) + 1);

FailureText& Target() {
  return ofThread.isOnStore ? ofThread.onStores : ofThread.without;
}

}  // namespace

void FailureText::StartOver() {
  if (!startsOver) return;
  startsOver = hasLines = false;
  store = nextStore;
  length = 0;
  code = FailureCode::None;
  system = {};
}

void FailureText::SetCause(const std::exception& e) {
  StartOver();
  if (code != FailureCode::None) return;
  code = CodeOf(e);
  if (const auto* failure = dynamic_cast<const Failure*>(&e)) system = failure->system;
  const Cause& known = kCauses[static_cast<int>(code)];
  if (!known.beginsText) return;
  const std::string_view cause = known.words;
  const std::size_t head = cause.size() + kSeparator.size();
  const std::size_t kept = std::min(length, kCapacity - 1 - head);
  std::memmove(text + head, text, kept);
  std::copy(kSeparator.begin(), kSeparator.end(), std::copy(cause.begin(), cause.end(), text));
  length = head + kept;
}

std::string_view FailureText::Text() const {
  const bool isCauseAlone = !hasLines && length > 0;
  return {text, length - (isCauseAlone ? kSeparator.size() : 0)};
}

void FailureText::Add(std::string_view line) {
  StartOver();
  if (hasLines && length < kCapacity - 1) text[length++] = '\n';
  hasLines = true;
  const std::size_t fits = std::min(line.size(), kCapacity - 1 - length);
  std::memcpy(text + length, line.data(), fits);
  length += fits;
}

const char* WordsFor(int code) {
  return code >= 0 && code < static_cast<int>(std::size(kCauses)) ? kCauses[code].words
                                                                  : "unknown code";
}

FailureText& OfCallsWithoutStore() {
  return ofThread.without;
}

FailureText& OfCallsOnStores() {
  return ofThread.onStores;
}

void BeginText(int storeIndex) {
  ofThread.isOnStore = storeIndex >= 0;
  Target().Begin(storeIndex);
}

}  // namespace api

void trace::Note(const char* line) {
  api::Target().Add(line);
}

void trace::NoteCause(const std::exception& e) {
  api::Target().SetCause(e);
}
