#include "api/FailureText.h"

#include <algorithm>
#include <cstring>

namespace api {

namespace {

constinit thread_local FailureText ofThread;
constinit thread_local FailureText* target = nullptr;

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
  return target != nullptr ? *target : ofThread;
}

}  // namespace

void FailureText::StartOver() {
  if (!startsOver) return;
  startsOver = hasLines = false;
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

FailureText& OfThread() {
  return ofThread;
}

void SendTo(FailureText* text) {
  target = text;
}

}  // namespace api

void trace::Note(const char* line) {
  api::Target().Add(line);
}

void trace::NoteCause(const std::exception& e) {
  api::Target().SetCause(e);
}
