#include "api/Call.h"

#include "platform/Trace.h"

namespace api {

namespace {

constinit thread_local int callDepth = 0;

}  // namespace

Call::Call(const char* callName, int storeIndex)
    : name_(callName), index_(storeIndex), outerCalls_(callDepth++) {
  if (RefuseNested()) return;
  registry::Entry* entry = registry::Find(index_);
  if (entry == nullptr) {
    OfThread().Begin();
    refused_ = !Refuse(FailureCode::NoStore, "no store has the index = " + std::to_string(index_));
    return;
  }
  BelongsTo(*entry);
  store_ = entry->store.get();
}

Call::Call(const char* callName) : name_(callName), outerCalls_(callDepth++) {
  if (outerCalls_ == 0) OfThread().Begin();
}

Call::~Call() {
  callDepth = outerCalls_;
  if (outerCalls_ == 0) SendTo(nullptr);
}

bool Call::MayChangeRegistry() {
  return !RefuseNested();
}

// A sink that calls back gets the message of the first refusal, and would call
// back again.
bool Call::RefuseNested() {
  if (outerCalls_ == 0) return false;
  refused_ = true;
  if (outerCalls_ == 1) Refuse(FailureCode::Refused, "called from inside another call");
  return true;
}

void Call::BelongsTo(registry::Entry& entry) const {
  if (outerCalls_ > 0) return;
  entry.failures.Begin();
  SendTo(&entry.failures);
}

bool Call::HasBytes(const char* argument, const unsigned char* data, const char* sizeName,
                    int size) {
  if (refused_) return false;
  if (size < 0)
    return Refuse(FailureCode::Argument,
                  std::string(sizeName) + " = " + std::to_string(size) + " is negative");
  return size == 0 || Has(argument, data);
}

bool Call::Refuse(FailureCode code, const std::string& text) {
  const Failure failure(code, name_ + std::string(": ") + text);
  trace::NoteCause(failure);
  trace::api.WriteWarnV("%s", failure.what());
  return false;
}

void Call::Report(const Handler& handler, const std::exception& e) const {
  trace::NoteCause(e);
  if (handler.errorId != 0) RTTrace_1(handler.errorId, Word(index_));
  std::string text = handler.prefix + std::string(e.what());
  if (handler.hash != nullptr) text += handler.separator + ToHash(handler.hash).toString();
  trace::api.WriteWarnV("%s", text.c_str());
}

}  // namespace api
