#include "tools/Console.h"

#include <fmt/format.h>
#include <langinfo.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cwchar>
#include <cwctype>
#include <utility>

namespace tool {
namespace {

constexpr auto kShowInterval = std::chrono::milliseconds(100);

bool lineShown = false;  // the cursor stands on a progress line
bool isHolding = false;
std::string heldLines;

void Write(std::string_view lines) {
  if (std::exchange(lineShown, false)) fmt::print(stderr, "\r\x1b[K");
  std::fwrite(lines.data(), 1, lines.size(), stderr);
}

}  // namespace

void InitConsole() {
  std::setlocale(LC_CTYPE, "");
  // No terminal, and no locale worth the name, as under cron: names are mostly UTF-8.
  if (::isatty(STDERR_FILENO) == 0 && std::string_view(::nl_langinfo(CODESET)) != "UTF-8")
    std::setlocale(LC_CTYPE, "C.UTF-8");
}

void SayText(std::string_view text) {
  const std::string line = fmt::format("blobring: {}\n", Printable(text));
  if (isHolding)
    heldLines += line;
  else
    Write(line);
}

HeldMessages::HeldMessages() {
  isHolding = true;
}

HeldMessages::~HeldMessages() {
  isHolding = false;
  if (!heldLines.empty()) Write(std::exchange(heldLines, {}));
}

std::string Printable(std::string_view text, bool keepLines) {
  std::string shown;
  std::mbstate_t state{};
  while (!text.empty()) {
    wchar_t character = 0;
    size_t size = std::mbrtowc(&character, text.data(), text.size(), &state);
    if (size == 0 || size > text.size()) {  // invalid, and the state with it
      state = {};
      size = 1;
      character = 0;
    }
    const bool keep = std::iswprint(static_cast<std::wint_t>(character)) != 0 ||
                      (keepLines && character == L'\n');
    shown += keep ? text.substr(0, size) : "?";
    text.remove_prefix(size);
  }
  return shown;
}

std::string Count(uint64_t count, std::string_view noun) {
  return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

std::string HumanSize(uint64_t bytes) {
  if (bytes < 1024) return Count(bytes, "byte");
  double value = static_cast<double>(bytes) / 1024;
  const char* unit = "KMGT";
  for (; value >= 1024 && *unit != 'T'; ++unit) value /= 1024;
  return fmt::format("{:.1f} {}iB", value, *unit);
}

Progress::Progress(std::string verb, uint64_t totalItems, uint64_t totalBytes)
    : verb_(std::move(verb)), totalItems_(totalItems), totalBytes_(totalBytes) {}

Progress::~Progress() {
  Write("");
}

double Progress::Elapsed() const {
  return std::chrono::duration<double>(Clock::now() - start_).count();
}

void Progress::Show(uint64_t items, uint64_t bytes) {
  items_ = items;
  bytes_ = bytes;
  static const bool isTerminal = ::isatty(STDERR_FILENO) == 1;
  const Clock::time_point now = Clock::now();
  if (!isTerminal || now - lastShown_ < kShowInterval) return;
  lastShown_ = now;
  std::string line = fmt::format("{} {}", verb_, items_);
  if (totalItems_ != 0) line += fmt::format(" of {}", totalItems_);
  if (bytes_ != 0) {
    const double rate = static_cast<double>(bytes_) / std::max(Elapsed(), 0.001);
    line += ", " + HumanSize(bytes_);
    if (totalBytes_ != 0) line += " of " + HumanSize(totalBytes_);
    line += fmt::format(", {}/s", HumanSize(static_cast<uint64_t>(rate)));
  }
  fmt::print(stderr, "\r\x1b[K{}", line);
  std::fflush(stderr);
  lineShown = true;
}

}  // namespace tool
