#include "tools/base/Console.h"

#include <fmt/format.h>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <cwctype>
#include <mutex>
#include <utility>

#include "tools/base/Interrupt.h"

namespace tool {
namespace {

constexpr auto kFirstAfter = std::chrono::milliseconds(500);
constexpr auto kRewriteAfter = std::chrono::milliseconds(100);
constexpr auto kNextLineAfter = std::chrono::seconds(3);

constexpr char kRedBegins = '\x0e';  // of Red(); in a name, these would colour it and no more
constexpr char kRedEnds = '\x0f';
constexpr std::string_view kRed = "\x1b[31m";
constexpr std::string_view kPlain = "\x1b[m";

bool IsTerminal(int fd) {
  const char* const kind = std::getenv("TERM");
  return ::isatty(fd) == 1 && (kind == nullptr || std::string_view(kind) != "dumb");
}

bool IsTerminal() {
  static const bool isTerminal = IsTerminal(STDERR_FILENO);
  return isTerminal;
}

// Hashes are dim: 32 hexadecimal digits, no more.
std::string WithDimHashes(const std::string& text) {
  constexpr size_t kDigits = 32;
  constexpr std::string_view kHex = "0123456789abcdef";
  std::string out;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find_first_not_of(kHex, at), text.size());
    const std::string word = text.substr(at, end - at);
    out += word.size() == kDigits ? fmt::format("\x1b[2m{}\x1b[22m", word) : word;
    at = std::min(text.find_first_of(kHex, end), text.size());
    out.append(text, end, at - end);
  }
  return out;
}

std::mutex mutex;        // of what follows
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

void SayText(std::string_view text, bool isDamage) {
  std::string line = "blobring: " + Printable(text);
  if (isDamage && IsColoured(STDERR_FILENO)) line = fmt::format("{}{}{}", kRed, line, kPlain);
  line += '\n';
  const std::lock_guard lock(mutex);
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

bool IsColoured(int fd) {
  if (consoleOptions.color != "auto")
    return consoleOptions.color == "always" && !(consoleOptions.json && fd == STDOUT_FILENO);
  const char* const noColor = std::getenv("NO_COLOR");
  return !consoleOptions.json && IsTerminal(fd) && (noColor == nullptr || *noColor == '\0');
}

std::string Red(std::string_view text) {
  if (!IsColoured(STDOUT_FILENO)) return std::string(text);
  return fmt::format("{}{}{}", kRedBegins, text, kRedEnds);
}

std::string Coloured(std::string_view lines) {
  std::string out;
  while (!lines.empty()) {
    const size_t at = std::min(lines.find_first_of("\x0e\x0f"), lines.size());
    out += WithDimHashes(Printable(lines.substr(0, at), true));
    if (at < lines.size()) out += lines[at] == kRedBegins ? kRed : kPlain;
    lines.remove_prefix(std::min(at + 1, lines.size()));
  }
  return out;
}

size_t LineWidth(int fd) {
  winsize size = {};
  return ::ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 1 ? size.ws_col : 80U;
}

std::string Wrapped(std::string_view text, size_t width) {
  std::string out;
  size_t column = 0;
  bool isFirst = true;  // of the line's words; one between two blanks is empty
  while (!text.empty()) {
    const size_t end = std::min(text.find_first_of(" \n"), text.size());
    const bool isFull = !isFirst && column + 1 + end > width;
    if (!isFirst) out += isFull ? '\n' : ' ';
    column = isFull || isFirst ? end : column + 1 + end;
    out += text.substr(0, end);
    isFirst = end < text.size() && text[end] == '\n';
    if (isFirst) out += '\n';
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return out;
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

std::string HumanTime(double seconds) {
  const auto whole = static_cast<uint64_t>(std::ceil(seconds));
  const uint64_t minutes = whole / 60;
  if (minutes < 60) return fmt::format("{}:{:02}", minutes, whole % 60);
  return fmt::format("{}:{:02}:{:02}", minutes / 60, minutes % 60, whole % 60);
}

Progress::Progress(std::string verb, uint64_t totalItems, uint64_t totalBytes)
    : verb_(std::move(verb)),
      totalItems_(totalItems),
      totalBytes_(totalBytes),
      next_(start_ + kFirstAfter) {}

Progress::~Progress() {
  const std::lock_guard lock(mutex);
  Write("");
}

double Progress::Elapsed() const {
  return std::chrono::duration<double>(Clock::now() - start_).count();
}

// "importing 12 of 40, 1.5 GiB of 5.0 GiB, 30 %, 210.0 MiB/s, 0:17 left".
std::string Progress::Line() const {
  const double elapsed = std::max(Elapsed(), 0.001);
  std::string line = verb_;
  if (items_ != 0 || totalItems_ != 0 || bytes_ == 0) line += fmt::format(" {}", items_);
  if (totalItems_ != 0) line += fmt::format(" of {}", totalItems_);
  if (bytes_ != 0) {
    line += (items_ != 0 || totalItems_ != 0 ? ", " : " ") + HumanSize(bytes_);
    if (totalBytes_ != 0) line += " of " + HumanSize(totalBytes_);
  }
  const bool byBytes = totalBytes_ != 0;
  const auto total = static_cast<double>(byBytes ? totalBytes_ : totalItems_);
  const auto done = static_cast<double>(byBytes ? bytes_ : items_);
  const double share = total > 0 ? std::min(done / total, 1.0) : 0;
  if (share > 0) line += fmt::format(", {:.0f} %", std::floor(100 * share));
  if (bytes_ != 0)
    line += fmt::format(", {}/s",
                        HumanSize(static_cast<uint64_t>(static_cast<double>(bytes_) / elapsed)));
  else
    line += fmt::format(", {:.0f}/s", static_cast<double>(items_) / elapsed);
  if (share > 0) line += fmt::format(", {} left", HumanTime(elapsed * (1 - share) / share));
  return line;
}

void Progress::ShowBytes(uint64_t bytes, uint64_t totalBytes) {
  totalBytes_ = totalBytes;
  Show(0, bytes);
}

void Progress::Show(uint64_t items, uint64_t bytes) {
  ThrowIfInterrupted();
  items_ = items;
  bytes_ = bytes;
  if (consoleOptions.quiet || (!IsTerminal() && !consoleOptions.progress)) return;
  const Clock::time_point now = Clock::now();
  if (now < next_) return;
  next_ = now + (IsTerminal() ? Clock::duration(kRewriteAfter) : Clock::duration(kNextLineAfter));
  std::string line = Line();
  const std::lock_guard lock(mutex);
  if (IsTerminal()) {
    line.resize(std::min(line.size(), LineWidth(STDERR_FILENO) - 1));  // a full one may scroll
    fmt::print(stderr, "\r\x1b[K{}", line);
    lineShown = true;
  } else {
    fmt::print(stderr, "blobring: {}\n", line);
  }
  std::fflush(stderr);
}

}  // namespace tool
