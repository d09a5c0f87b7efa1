#include "tools/Console.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

namespace tool {
namespace {

constexpr auto kShowInterval = std::chrono::milliseconds(100);

bool lineShown = false;  // the cursor stands on a progress line

void ClearLine() {
  if (std::exchange(lineShown, false)) fmt::print(stderr, "\r\x1b[K");
}

}  // namespace

void Say(std::string_view text) {
  ClearLine();
  std::string line = fmt::format("blobring: {}", text);
  std::replace_if(
      line.begin(), line.end(), [](unsigned char c) { return c < ' ' || c == 0x7F; }, '?');
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stderr);
}

std::string Count(uint64_t count, std::string_view noun) {
  return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

std::string HumanSize(uint64_t bytes) {
  constexpr std::array kUnits = {"KiB", "MiB", "GiB", "TiB"};
  if (bytes < 1024) return Count(bytes, "byte");
  double value = static_cast<double>(bytes) / 1024;
  size_t unit = 0;
  for (; value >= 1024 && unit + 1 < kUnits.size(); ++unit) value /= 1024;
  return fmt::format("{:.1f} {}", value, kUnits.at(unit));
}

Progress::Progress(std::string verb, uint64_t totalItems, uint64_t totalBytes)
    : verb_(std::move(verb)), totalItems_(totalItems), totalBytes_(totalBytes) {}

Progress::~Progress() {
  ClearLine();
}

double Progress::Elapsed() const {
  return std::chrono::duration<double>(Clock::now() - start_).count();
}

void Progress::Advance(uint64_t bytes) {
  ++items_;
  bytes_ += bytes;
  static const bool isTerminal = ::isatty(STDERR_FILENO) == 1;
  const Clock::time_point now = Clock::now();
  if (!isTerminal || now - lastShown_ < kShowInterval) return;
  lastShown_ = now;
  Show();
}

void Progress::Show() const {
  const auto rate = static_cast<uint64_t>(static_cast<double>(bytes_) / std::max(Elapsed(), 0.001));
  std::string line = fmt::format("{} {}", verb_, items_);
  if (totalItems_ != 0) line += fmt::format(" of {}", totalItems_);
  line += ", " + HumanSize(bytes_);
  if (totalBytes_ != 0) line += " of " + HumanSize(totalBytes_);
  fmt::print(stderr, "\r\x1b[K{}, {}/s", line, HumanSize(rate));
  std::fflush(stderr);
  lineShown = true;
}

}  // namespace tool
