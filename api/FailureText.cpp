#include "api/FailureText.h"

#include <algorithm>
#include <cstring>

namespace api {

namespace {

constinit thread_local FailureText ofThread;
constinit thread_local FailureText* target = nullptr;

FailureText& Target() {
  return target != nullptr ? *target : ofThread;
}

}  // namespace

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
  api::Target().SetCode(CodeOf(e));
}
