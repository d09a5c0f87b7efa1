// What the last failing call traced, one line per message, behind its cause in a few words unless
// the lines say it, and its error code. If there is no room for all, the first lines are kept: the
// cause comes before its consequences.
//
// Every thread has two, for calls on stores and for calls without one.
#pragma once

#include <cstddef>
#include <string_view>

#include "platform/Failure.h"

namespace api {

class FailureText {
 public:
  static constexpr std::size_t kCapacity = 1024;  // bytes, the final NUL included

  // Starts a call on a store. The text stays until the call has something to say.
  void Begin(int storeIndex) {
    nextStore = storeIndex;
    startsOver = true;
  }
  void Add(std::string_view line);
  // Keeps the first codes of a call; later ones are consequences.
  void SetCause(const std::exception& e);

  // The store that the text is about, -1 for none; and whether it is of the call begun last.
  int Store() const { return store; }
  bool IsNew() const { return !startsOver; }

  std::string_view Text() const;
  FailureCode Code() const { return code; }
  DWORD System() const { return system.value; }

 private:
  void StartOver();

  int store = -1;
  int nextStore = -1;
  bool startsOver = true;
  bool hasLines = false;
  FailureCode code = FailureCode::None;
  SystemCode system;
  std::size_t length = 0;
  char text[kCapacity] = {};
};

// A few words for a code; "unknown code" if there is no such code.
const char* WordsFor(int code);

// The calling thread's.
FailureText& OfCallsWithoutStore();
FailureText& OfCallsOnStores();

// Begins the text of a call on a store, or of one without if storeIndex is negative, to which what
// the thread traces goes from here on.
void BeginText(int storeIndex);

}  // namespace api
