// The last failure: its cause in a few words, unless the lines say it, then the lines of the last
// call that traced any, joined by line ends, and its code. The first lines are kept where there is
// no room for all, since the cause comes before what followed from it.
//
// Every open store has one, and every thread, for calls without a store. A call says at its start
// whose it is.
#pragma once

#include <cstddef>
#include <string_view>

#include "platform/Failure.h"

namespace api {

class FailureText {
 public:
  static constexpr std::size_t kCapacity = 1024;  // bytes, the final NUL included

  // Starts a call. The text stays until the call has something to say.
  void Begin() { startsOver = true; }
  void Add(std::string_view line);
  // Counts once in a call: the first code is the cause's.
  void SetCode(FailureCode failureCode);

  std::string_view Text() const;
  FailureCode Code() const { return code; }

 private:
  void StartOver();

  bool startsOver = true;
  bool hasLines = false;
  FailureCode code = FailureCode::None;
  std::size_t length = 0;
  char text[kCapacity] = {};
};

// The calling thread's own.
FailureText& OfThread();

// Sends what the thread traces to a text, which must remain live until the next call of this; null:
// to the thread's own.
void SendTo(FailureText* text);

}  // namespace api
