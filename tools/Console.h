// Standard error: messages, and a progress line where a person is watching.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace tool {

// Writes "blobring: text" on a line of its own. Bytes below space are shown
// as '?', so that a file's name cannot drive the terminal.
void Say(std::string_view text);

// "3 files", "1 file".
std::string Count(uint64_t count, std::string_view noun);

// "1.5 MiB"; below 1 KiB exact.
std::string HumanSize(uint64_t bytes);

// One line that is rewritten at most ten times a second, and only when
// standard error is a terminal. Say() takes it away for the time of a message.
class Progress {
 public:
  // Totals of 0 are not shown.
  Progress(std::string verb, uint64_t totalItems, uint64_t totalBytes);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // One more item is done.
  void Advance(uint64_t bytes);

  // Seconds since the start.
  double Elapsed() const;

 private:
  using Clock = std::chrono::steady_clock;
  void Show() const;

  std::string verb_;
  uint64_t totalItems_;
  uint64_t totalBytes_;
  uint64_t items_ = 0;
  uint64_t bytes_ = 0;
  Clock::time_point start_ = Clock::now();
  Clock::time_point lastShown_ = start_;
};

}  // namespace tool
