// How a command ends: its exit status, and the kinds of failure. Their texts are for the user,
// without the program's name and without a newline. What the store itself reports is a
// blobring::Error, see Open.h.
#pragma once

#include <fmt/format.h>

#include <array>
#include <stdexcept>
#include <string_view>

namespace tool {

enum ExitStatus : int {
  kSuccess = 0,
  kFault = 1,
  kUsage = 2,
  kHeld = 3,
  kNothing = 4,
  kInterrupted = 130,
};

// What `--help` and the manual say of each.
struct StatusText {
  ExitStatus status;
  std::string_view meaning;
};
inline constexpr std::array kStatusTexts = {
    StatusText{kSuccess, "success"},
    StatusText{kFault, "the store, a blob or a file is at fault, or what was compared differs"},
    StatusText{kUsage, "usage; nothing was changed"},
    StatusText{kHeld, "another process has the store open"},
    StatusText{kNothing, "what was asked for is not there, or there is nothing to do"},
    StatusText{kInterrupted, "interrupted"},
};

class CommandError : public std::runtime_error {
 public:
  template <class... T>
  explicit CommandError(fmt::format_string<T...> text, T&&... values)
      : std::runtime_error(fmt::format(text, std::forward<T>(values)...)) {}

  virtual ExitStatus status() const = 0;
};

template <ExitStatus kStatus>
class CommandErrorOf : public CommandError {
 public:
  using CommandError::CommandError;
  ExitStatus status() const override { return kStatus; }
};

// The store, a blob or a file is at fault.
class Fault : public CommandErrorOf<kFault> {
  using CommandErrorOf::CommandErrorOf;
};

// The request makes no sense or is refused.
class UsageError : public CommandErrorOf<kUsage> {
  using CommandErrorOf::CommandErrorOf;
};

// What is meant by the request fits several.
class Ambiguous : public UsageError {
  using UsageError::UsageError;
};

// What was asked for is not there.
class NothingFound : public CommandErrorOf<kNothing> {
  using CommandErrorOf::CommandErrorOf;
};

// The user asked to stop. The text says what is safe.
class Interrupted : public CommandErrorOf<kInterrupted> {
  using CommandErrorOf::CommandErrorOf;
};

}  // namespace tool
