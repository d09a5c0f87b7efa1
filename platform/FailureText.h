// What went wrong last, in the words of the trace: the lines of the last call
// that wrote any, joined by line ends, the first ones kept where there is no
// room for all. The cause comes before what followed from it, so that is the
// end to keep.
//
// Each open store has one, and the process has one for calls without a store.
// The thread that makes a call says at its start whose it is.
#pragma once

#include <cstddef>
#include <exception>
#include <string_view>

#include "platform/Failure.h"

namespace trace {

class FailureText {
 public:
  static constexpr std::size_t kCapacity = 1024;  // bytes, the final NUL included

  constexpr FailureText() = default;
  // Threads that still note lines here go on with the process's.
  ~FailureText();
  FailureText(const FailureText&) = delete;
  FailureText& operator=(const FailureText&) = delete;

  // Another call begins: the next line starts the text over. Until it comes,
  // the text stays.
  void Begin() { startsOver = true; }
  void Add(std::string_view line);
  void Replace(std::string_view whole) {
    Begin();
    Add(whole);
  }
  std::string_view Text() const { return {text, length}; }

  // The code of the first failure of the call that wrote the text.
  void SetCode(FailureCode failureCode);
  FailureCode Code() const { return code; }

 private:
  void StartOver();

  bool startsOver = true;
  FailureCode code = FailureCode::None;
  std::size_t length = 0;
  char text[kCapacity] = {};
};

// Begins a call of the calling thread, whose lines go to `text`.
void NoteIn(FailureText& text);
// The same for a call without a store.
void NoteInProcess();

FailureText& ProcessFailures();

// Adds a line to the text of the call that the thread is in.
void Note(const char* line);

// Gives that text the code of what was caught; call it before the message
// that tells of the failure is written.
void NoteCause(const std::exception& e);

}  // namespace trace
