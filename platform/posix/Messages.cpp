#include "platform/posix/Messages.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "blobring/host.h"
#include "platform/Win32.h"
#include "platform/posix/HostCallback.h"

namespace platform {
namespace {

constexpr std::size_t kMaxTextSize = 4096;

constinit HostCallback<BlobringHostTraceSink> traceSink;

struct Recent {
  std::mutex mutex;
  std::uint32_t total;
  BlobringHostMessage messages[BLOBRING_HOST_MESSAGE_COUNT];
};
constinit Recent recent{};

// Copies a text. Of one that does not fit, the middle goes: the end is where
// the error codes are.
void CopyWithoutMiddle(char* out, std::size_t size, const char* text) {
  constexpr char kGap[] = " ... ";
  constexpr std::size_t kGapLength = sizeof(kGap) - 1;
  const std::size_t length = std::strlen(text);
  if (length < size) {
    std::memcpy(out, text, length + 1);
    return;
  }
  const std::size_t head = (size - 1 - kGapLength) / 2;
  const std::size_t tail = size - 1 - kGapLength - head;
  std::memcpy(out, text, head);
  std::memcpy(out + head, kGap, kGapLength);
  std::memcpy(out + head + kGapLength, text + length - tail, tail + 1);
}

void Keep(std::int32_t level, const char* source, const char* text) {
  const std::uint64_t timeMs = UtcMs();
  const std::lock_guard lock(recent.mutex);
  BlobringHostMessage& message = recent.messages[recent.total % BLOBRING_HOST_MESSAGE_COUNT];
  message.timeMs = timeMs;
  message.sequence = recent.total++;
  message.threadId = GetCurrentThreadId();
  message.level = level;
  std::snprintf(message.source, sizeof(message.source), "%s", source);
  CopyWithoutMiddle(message.text, sizeof(message.text), text);
}

// One write for the whole line, so that lines of several writers do not mix;
// line breaks in the text, which a file name may hold, would fake more lines.
void WriteErrorLine(const char* text) {
  char line[kMaxTextSize + 32];
  int length = std::snprintf(line, sizeof(line), "Blobring error: %s", text);
  std::replace_if(
      line, line + length, [](char c) { return c == '\n' || c == '\r'; }, ' ');
  line[length++] = '\n';
  [[maybe_unused]] const ssize_t ignored = write(STDERR_FILENO, line, static_cast<std::size_t>(length));
}

void CutLineEnds(char* text) {
  std::size_t length = std::strlen(text);
  while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r')) text[--length] = '\0';
}

}  // namespace

std::uint64_t UtcMs() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1'000'000;
}

void Report(std::int32_t level, const char* source, const char* format, std::va_list arguments) {
  char text[kMaxTextSize];
  if (std::vsnprintf(text, sizeof(text), format, arguments) < 0) return;
  CutLineEnds(text);
  Keep(level, source, text);
  if (const auto [sink, context] = traceSink.Get(); sink != nullptr) {
    sink(context, level, source, text);
  } else if (level == BLOBRING_HOST_ERROR) {
    WriteErrorLine(text);
  }
}

}  // namespace platform

void BlobringHostSetTraceSink(BlobringHostTraceSink* sink, void* context) {
  platform::traceSink.Set(sink, context);
}

uint32_t BlobringHostRecentMessages(BlobringHostMessage* messages, uint32_t capacity, uint32_t* total) {
  auto& recent = platform::recent;
  const std::lock_guard lock(recent.mutex);
  const uint32_t count = std::min({capacity, recent.total, uint32_t{BLOBRING_HOST_MESSAGE_COUNT}});
  for (uint32_t i = 0; i < count; ++i) {
    messages[i] = recent.messages[(recent.total - count + i) % BLOBRING_HOST_MESSAGE_COUNT];
  }
  if (total != nullptr) *total = recent.total;
  return count;
}
