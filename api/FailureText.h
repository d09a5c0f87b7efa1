// What the last failing call traced, one line per message, behind its cause in a few words unless
// the lines say it, and its error code. If there is no room for all, the first lines are kept: the
// cause comes before its consequences.
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
  // Keeps the first codes of a call; later ones are consequences.
  void SetCause(const std::exception& e);

  std::string_view Text() const;
  FailureCode Code() const { return code; }
  DWORD System() const { return system.value; }

 private:
  void StartOver();

  bool startsOver = true;
  bool hasLines = false;
  FailureCode code = FailureCode::None;
  SystemCode system;
  std::size_t length = 0;
  char text[kCapacity] = {};
};

// The calling thread's own.
FailureText& OfThread();

// Sends what the thread traces to a text, which must remain live until the next call of this; null:
// to the thread's own.
void SendTo(FailureText* text);

}  // namespace api
