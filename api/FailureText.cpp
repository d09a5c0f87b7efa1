#include "api/FailureText.h"

#include <algorithm>
#include <cstring>

namespace api {

namespace {

// In one object, which takes one call to find.
struct Texts {
  FailureText without, onStores;
  bool isOnStore = false;
};
constinit thread_local Texts ofThread;

constexpr std::string_view kSeparator = ": ";

std::string_view CauseOf(FailureCode code) {
  switch (code) {
    case FailureCode::Held:
      return "another opener has a file of the store";
    case FailureCode::Full:
      return "there is no space left";
    case FailureCode::Damaged:
      return "what is on disk is not what a store wrote";
    case FailureCode::InDoubt:
      return "what the disk holds is unknown";
    case FailureCode::Io:
      return "the system refused a call";
    case FailureCode::Memory:
      return "there is no memory";
    case FailureCode::NotFound:
      return "there is no such blob, file or directory";
    default:  // the store's own words
      return {};
  }
}

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
  const std::string_view cause = CauseOf(code);
  if (cause.empty()) return;
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
