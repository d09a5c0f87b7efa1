#include "api/Call.h"

#include <utility>

#include "platform/Trace.h"

namespace api {

namespace {

// Of the thread. The entry is here and not in the Call: a jump may leave that behind.
struct Calls {
  int depth;
  registry::Entry* entered;  // by the outermost
};
constinit thread_local Calls calls{};

}  // namespace

Call::Call(const char* callName, int storeIndex)
    : name_(callName), index_(storeIndex), outerCalls_(calls.depth++) {
  if (RefuseNested()) return;
  store_ = Enter(index_);
  if (store_ != nullptr) return;
  refused_ = !Refuse(FailureCode::NoStore, Text("no store has the index = ", index_));
}

Call::Call(const char* callName) : name_(callName), outerCalls_(calls.depth++) {
  if (outerCalls_ == 0) BeginText(-1);
}

BlobController* Call::Enter(int storeIndex) {
  if (outerCalls_ > 0) return nullptr;
  BeginText(storeIndex);
  calls.entered = registry::Enter(storeIndex);
  return calls.entered == nullptr ? nullptr : calls.entered->store.get();
}

void Call::End() {
  calls.depth = outerCalls_;
  if (outerCalls_ > 0 || calls.entered == nullptr) return;
  const FailureText& text = OfCallsOnStores();
  registry::Leave(*std::exchange(calls.entered, nullptr), text.IsNew() ? &text : nullptr);
}

// Code and text, and no message: the call's result is no failure.
void Call::NoteIfNotLoaded() const {
  if (store_->IsLoaded()) return;
  trace::NoteCause(Failure(FailureCode::Closed));
  trace::NoteLine(false, "%s: the store is not loaded", name_);
}

bool Call::RequireOutermost() {
  return !RefuseNested();
}

// A sink that calls back gets the message of the first refusal, and would call back again.
bool Call::RefuseNested() {
  if (outerCalls_ == 0) return false;
  refused_ = true;
  if (outerCalls_ == 1) Refuse(FailureCode::Refused, "called from inside another call");
  return true;
}

bool Call::RequireBytes(const char* argument, const unsigned char* data, const char* sizeName,
                        int size) {
  if (refused_) return false;
  if (size < 0) return Refuse(FailureCode::Argument, Text(sizeName, " = ", size, " is negative"));
  return size == 0 || Require(argument, data);
}

bool Call::Refuse(FailureCode code, const std::string& text) {
  trace::api.CaughtWarnV(Failure(code), "%s: %s", name_, text);
  return false;
}

void Call::Report(const Handler& handler, const std::exception& e) const {
  trace::NoteCause(e);
  if (handler.errorId != 0) RTTrace_1(handler.errorId, Word(index_));
  try {
    std::string text = std::string(handler.prefix) + e.what();
    if (handler.hash != nullptr) text += handler.separator + ToHash(handler.hash).toString();
    trace::api.WriteWarnV("%s", text);
  } catch (const std::bad_alloc&) {  // the message is lost, its code is not
  }
}

}  // namespace api
