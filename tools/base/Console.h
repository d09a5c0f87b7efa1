// Standard error: messages and progress. Threads: any may write messages, and show a Progress of
// its own.
#pragma once

#include <fmt/format.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace tool {

// What every command takes.
struct ConsoleOptions {
  bool json = false;
  bool quiet = false;
  bool progress = false;
  bool verbose = false;
  std::string color = "auto";  // or "always", "never"
};
inline ConsoleOptions consoleOptions;

// Takes the user's locale, which Printable() goes by. Once, at the start.
void InitConsole();

// Writes "blobring: text" as one printable line. While a HeldMessages lives, the line waits for its
// end.
void SayText(std::string_view text, bool isDamage = false);

template <class... T>
void Say(fmt::format_string<T...> text, T&&... values) {
  SayText(fmt::format(text, std::forward<T>(values)...));
}

// Say, unless the user wants to hear only what went wrong.
template <class... T>
void Inform(fmt::format_string<T...> text, T&&... values) {
  if (!consoleOptions.quiet) SayText(fmt::format(text, std::forward<T>(values)...));
}

// What only -v asks for.
template <class... T>
void Detail(fmt::format_string<T...> text, T&&... values) {
  if (consoleOptions.verbose) SayText(fmt::format(text, std::forward<T>(values)...));
}

// Of damage: Say, in red where colours are wanted.
template <class... T>
void SayDamage(fmt::format_string<T...> text, T&&... values) {
  SayText(fmt::format(text, std::forward<T>(values)...), true);
}

// Delays all messages. One lives as long as a store is open: a reader of standard error may be
// waiting for that store.
class HeldMessages {
 public:
  HeldMessages();
  ~HeldMessages();
  HeldMessages(const HeldMessages&) = delete;
};

// Replaces by '?' what the locale cannot print: control characters, those of 0x80 to 0x9F included,
// and invalid sequences. Newlines stay if `keepLines`.
std::string Printable(std::string_view text, bool keepLines = false);

// Whether to colour what goes to this descriptor, as --color, NO_COLOR (no-color.org) and TERM have
// it. JSON has no colours.
bool IsColoured(int fd);

// Marks a part of a result for PrintText, which shows it in red where results are coloured.
std::string Red(std::string_view text);

// Printable lines with their marks and hashes in colours.
std::string Coloured(std::string_view lines);

// The columns of the terminal, or 80.
size_t LineWidth(int fd);

// Breaks lines at blanks so that none is longer, if that can be.
std::string Wrapped(std::string_view text, size_t width);

// "3 files", "1 file".
std::string Count(uint64_t count, std::string_view noun);

// "1.5 MiB"; exact below 1 KiB.
std::string HumanSize(uint64_t bytes);

// "2:05", "1:02:05".
std::string HumanTime(double seconds);

// How far a command is: a line that is rewritten ten times a second, on a terminal, once the
// command has taken half a second; every three seconds a line of its own where --progress asks for
// it. Each call is also where Ctrl-C takes effect: it throws Interrupted.
class Progress {
 public:
  // Totals of 0 are not known.
  Progress(std::string verb, uint64_t totalItems, uint64_t totalBytes = 0);
  ~Progress();
  Progress(const Progress&) = delete;

  // One more item is done.
  void Advance(uint64_t bytes) { Show(items_ + 1, bytes_ + bytes); }

  // `items` items are done.
  void Show(uint64_t items, uint64_t bytes = 0);

  // As Show, where there are bytes alone.
  void ShowBytes(uint64_t bytes, uint64_t totalBytes);

  // Seconds since the start.
  double Elapsed() const;

 private:
  using Clock = std::chrono::steady_clock;

  std::string Line() const;

  std::string verb_;
  uint64_t totalItems_;
  uint64_t totalBytes_;
  uint64_t items_ = 0;
  uint64_t bytes_ = 0;
  Clock::time_point start_ = Clock::now();
  Clock::time_point next_;  // when the next line is due
};

}  // namespace tool
