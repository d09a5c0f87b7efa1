#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <regex>
#include <thread>
#include <vector>

#include "blobring/host.h"
#include "platform/Diagnostics.h"
#include "platform/MemoryManager.h"
#include "tests/posix/Support.h"

namespace {

using Vell::Common::System::OS::Diagnostics::VellTrace;
using namespace Vell::Common::System::OS::Memory;

// Uses everything before any other static object of the program is there, and
// once more after they are gone. A fault in the latter fails the program.
class UsesAllTheTime {
 public:
  UsesAllTheTime() { Use(); }
  ~UsesAllTheTime() { Use(); }
  std::uint32_t messagesBefore = 0;

 private:
  void Use() {
    VellTrace trace("early");
    trace.WriteWarnV("%s", "before main");
    RTTrace_1(1, 2);
    WriteEventToRingBuffer(0, GetCurrentThreadId(), 3, 0, 0, 0, 0);
    void* block = nullptr;
    TesselMemoryManager::GetInstance(2048)->Alloc(&block, 100, 20, kLifeSpanDefault, 5);
    const HANDLE file = CreateFileW(u"/tmp", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, 0);
    if (block == nullptr || TesselMemoryManager::GetInstance(2048)->Free(block) != 0 || file != INVALID_HANDLE_VALUE ||
        GetLastError() != ERROR_ACCESS_DENIED) {
      _exit(99);
    }
    BlobringHostRecentMessages(nullptr, 0, &messagesBefore);
  }
};
__attribute__((init_priority(101))) UsesAllTheTime usesAllTheTime;

TEST(Diagnostics, WorkBeforeMainBegins) {
  EXPECT_GE(usesAllTheTime.messagesBefore, 1U);
}

struct Line {
  int level;
  std::string source;
  std::string text;
  bool operator==(const Line&) const = default;
};

// A sink that calls back in, as hosts will.
void Collect(void* lines, int level, const char* source, const char* text) {
  BlobringHostMessage latest;
  EXPECT_EQ(BlobringHostRecentMessages(&latest, 1, nullptr), 1U);
  EXPECT_EQ(latest.level, level);
  static_cast<std::vector<Line>*>(lines)->push_back({level, source, text});
}

TEST(Messages, GoToTheSinkOfTheHost) {
  std::vector<Line> lines;
  VellTrace trace("BlobController");
  BlobringHostSetTraceSink(Collect, &lines);
  trace.WriteWarnV("file = %s code = %d ", "a.pak", 5);
  trace.WriteErrorV("%s", "100%d as it is");
  trace.WriteErrorV("ended\n");
  BlobringHostSetTraceSink(nullptr, nullptr);
  trace.WriteWarnV("not any more");
  const std::vector<Line> expected = {{BLOBRING_HOST_WARNING, "BlobController", "file = a.pak code = 5 "},
                                      {BLOBRING_HOST_ERROR, "BlobController", "100%d as it is"},
                                      {BLOBRING_HOST_ERROR, "BlobController", "ended"}};
  EXPECT_EQ(lines, expected);
}

TEST(Messages, OfErrorsAreLinesOnStandardErrorByDefault) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const int result = InChild([&] {
    dup2(ends[1], STDERR_FILENO);
    VellTrace trace("BlobController");
    trace.WriteWarnV("a warning");
    trace.WriteErrorV("bad %d", 7);
    trace.WriteErrorV("two\nlines");
    trace.WriteErrorV("%s", std::string(10000, 'x').c_str());
    return 0;
  });
  EXPECT_EQ(result, 0);
  close(ends[1]);
  std::string output(20000, '\0');
  const ssize_t length = read(ends[0], output.data(), output.size());
  close(ends[0]);
  output.resize(static_cast<std::size_t>(length));
  EXPECT_EQ(output,
            "Blobring error: bad 7\nBlobring error: two lines\nBlobring error: " + std::string(4095, 'x') + "\n");
}

TEST(Messages, AreKeptUntilNewerOnesTakeTheirPlace) {
  VellTrace trace("a source with a name that is too long to keep");
  for (int i = 0; i < 100; ++i) trace.WriteWarnV("message %d", i);
  const std::string path(2000, 'p');
  trace.WriteWarnV("cannot open %s GetLastError code= %d", path.c_str(), 112);

  std::vector<BlobringHostMessage> messages(BLOBRING_HOST_MESSAGE_COUNT + 10);
  uint32_t total = 0;
  ASSERT_EQ(BlobringHostRecentMessages(messages.data(), BLOBRING_HOST_MESSAGE_COUNT + 10, &total), 64U);
  EXPECT_STREQ(messages[62].text, "message 99");
  EXPECT_STREQ(messages[0].text, "message 37");
  EXPECT_STREQ(messages[0].source, "a source with a name that i");
  EXPECT_EQ(messages[63].sequence, total - 1);
  EXPECT_EQ(messages[0].sequence, total - 64);
  EXPECT_EQ(messages[0].threadId, GetCurrentThreadId());
  EXPECT_NEAR(static_cast<double>(messages[0].timeMs) / 1000, static_cast<double>(time(nullptr)), 100);

  const std::string text = messages[63].text;
  EXPECT_EQ(text.size(), sizeof(messages[63].text) - 1U);
  EXPECT_EQ(text.rfind("cannot open ppp", 0), 0U);
  EXPECT_NE(text.find("p ... p"), std::string::npos);
  EXPECT_TRUE(text.ends_with("p GetLastError code= 112")) << text;

  EXPECT_EQ(BlobringHostRecentMessages(messages.data(), 2, nullptr), 2U);
  EXPECT_STREQ(messages[0].text, "message 99") << "the newest two";
}

uint32_t EventsSoFar() {
  uint32_t position = 0;
  BlobringHostEvent events[BLOBRING_HOST_RECORD_COUNT];
  while (BlobringHostReadEvents(&position, events, BLOBRING_HOST_RECORD_COUNT, nullptr) != 0) {
  }
  return position;
}

TEST(Records, AreReadInOrderAndTheLostOnesCounted) {
  std::uint32_t ring = 0;
  EXPECT_EQ(GetTraceRingBuffer(8, &ring), 0);
  EXPECT_NE(ring, 0U);
  uint32_t position = EventsSoFar();
  const uint32_t start = position;
  uint32_t missed = 99;
  std::vector<BlobringHostEvent> events(2000);
  EXPECT_EQ(BlobringHostReadEvents(&position, events.data(), 2000, &missed), 0U);
  EXPECT_EQ(missed, 0U);

  WriteEventToRingBuffer(ring, 77, 8, 0x00010203, 0x04050607, 0x08090A0B, 0x0C0D0E0F);
  WriteEventToRingBuffer(0, 78, 14, 1, 2, 3, 4);
  ASSERT_EQ(BlobringHostReadEvents(&position, events.data(), 1, nullptr), 1U);
  EXPECT_EQ(events[0].sequence, start);
  EXPECT_EQ(events[0].threadId, 77U);
  EXPECT_EQ(events[0].ring, ring);
  EXPECT_EQ(events[0].kind, 8U);
  EXPECT_EQ(events[0].values[0], 0x00010203U);
  EXPECT_EQ(events[0].values[3], 0x0C0D0E0FU);
  ASSERT_EQ(BlobringHostReadEvents(&position, events.data(), 2000, nullptr), 1U);
  EXPECT_EQ(events[0].ring, 0U);

  for (std::uint32_t i = 0; i < 1500; ++i) WriteEventToRingBuffer(ring, 1, 2, i, 0, 0, 0);
  ASSERT_EQ(BlobringHostReadEvents(&position, events.data(), 2000, &missed), 1024U);
  EXPECT_EQ(missed, 1500U - 1024U);
  EXPECT_EQ(events.front().values[0], 1500U - 1024U);
  EXPECT_EQ(events[1023].values[0], 1499U);
  EXPECT_EQ(position, start + 2 + 1500);
}

TEST(Records, OfTheNumericTraceTellTheirValues) {
  uint32_t position = 0;
  BlobringHostNumericRecord records[BLOBRING_HOST_RECORD_COUNT];
  BlobringHostReadNumericTrace(&position, records, BLOBRING_HOST_RECORD_COUNT, nullptr);
  RTTrace(100);
  RTTrace_1(101, 1);
  RTTrace_2(102, 1, 2);
  RTTrace_3(103, 1, 2, 3);
  RTTrace_4(104, 1, 2, 3, 4);
  ASSERT_EQ(BlobringHostReadNumericTrace(&position, records, BLOBRING_HOST_RECORD_COUNT, nullptr), 5U);
  for (std::uint32_t i = 0; i < 5; ++i) {
    EXPECT_EQ(records[i].id, 100 + i);
    EXPECT_EQ(records[i].valueCount, i);
    EXPECT_EQ(records[i].threadId, GetCurrentThreadId());
    for (std::uint32_t v = 0; v < 4; ++v) EXPECT_EQ(records[i].values[v], v < i ? v + 1 : 0U);
  }
}

// The reader asks for the oldest record, which the writer is about to
// overwrite; what it gets is never mixed from two records.
TEST(Records, AreNotTornByAWriterThatOvertakesTheReader) {
  const uint32_t start = EventsSoFar();
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (std::uint32_t i = 0; !stop; ++i) WriteEventToRingBuffer(i, i, i, i, i, i, i);
  });
  while (EventsSoFar() - start < 2 * BLOBRING_HOST_RECORD_COUNT) std::this_thread::yield();  // all are the writer's
  std::uint64_t read = 0;
  std::uint64_t torn = 0;
  for (int attempt = 0; attempt < 3'000'000; ++attempt) {
    uint32_t position = 0;
    BlobringHostEvent e;
    if (BlobringHostReadEvents(&position, &e, 1, nullptr) == 0) continue;
    ++read;
    const std::uint32_t words[] = {e.ring, e.kind, e.values[0], e.values[1], e.values[2], e.values[3]};
    if (std::count(std::begin(words), std::end(words), e.threadId) != 6) ++torn;
  }
  stop = true;
  writer.join();
  EXPECT_EQ(torn, 0U) << "of " << read;
}

TEST(Records, OfConcurrentWritersAreAllCounted) {
  uint32_t position = EventsSoFar();
  const uint32_t start = position;
  std::vector<std::thread> writers;
  for (std::uint32_t t = 0; t < 4; ++t) {
    writers.emplace_back([t] {
      for (std::uint32_t i = 0; i < 100; ++i) WriteEventToRingBuffer(1, t, i, 0, 0, 0, 0);
    });
  }
  for (std::thread& writer : writers) writer.join();
  BlobringHostEvent events[BLOBRING_HOST_RECORD_COUNT];
  ASSERT_EQ(BlobringHostReadEvents(&position, events, BLOBRING_HOST_RECORD_COUNT, nullptr), 400U);
  EXPECT_EQ(position, start + 400);
  std::array<std::uint32_t, 4> next{};
  for (std::uint32_t i = 0; i < 400; ++i) EXPECT_EQ(events[i].kind, next[events[i].threadId]++);
}

TEST(RawTrace, ExistsWhenTheHostTakesIt) {
  EXPECT_LT(TraceGetEffectiveLevel(), BLOBRING_HOST_DUMP_TRACE_LEVEL);
  BlobringHostSetTraceLevel(BLOBRING_HOST_DUMP_TRACE_LEVEL);
  EXPECT_EQ(TraceGetEffectiveLevel(), 60000U);
  BlobringHostSetTraceLevel(BLOBRING_HOST_DEFAULT_TRACE_LEVEL);

  std::uint32_t device = 0;
  TraceDeviceFind(u"LogFile", &device);
  EXPECT_EQ(device, 0U);
  std::string written;
  BlobringHostSetRawSink([](void* context, const char* bytes,
                            uint32_t length) { static_cast<std::string*>(context)->append(bytes, length); },
                         &written);
  TraceDeviceFind(u"LogFil", &device);
  TraceDeviceFind(u"LogFile2", &device);
  EXPECT_EQ(device, 0U);
  TraceDeviceFind(u"LogFile", &device);
  ASSERT_NE(device, 0U);
  EXPECT_EQ(TraceDeviceWriteRaw(device, "a\0b\n", 4), 4);
  EXPECT_LT(TraceDeviceWriteRaw(device + 1, "x", 1), 0);
  EXPECT_LT(TraceDeviceWriteRaw(device, "x", -1), 0);
  BlobringHostSetRawSink(nullptr, nullptr);
  EXPECT_LT(TraceDeviceWriteRaw(device, "x", 1), 0);
  EXPECT_EQ(written, std::string("a\0b\n", 4));
}

TEST(RawTrace, HeadsItsLines) {
  char buffer[100];
  std::memset(buffer, '#', sizeof(buffer));
  const int length = TraceFormatHeader(buffer, sizeof(buffer), 3, 0, "BlobController");
  ASSERT_GT(length, 0);
  const std::string header(buffer, static_cast<std::size_t>(length));
  const std::regex form("20\\d\\d-[01]\\d-[0-3]\\dT[0-2]\\d:[0-5]\\d:[0-6]\\d\\.\\d\\d\\dZ \\d+ BlobController: ");
  EXPECT_TRUE(std::regex_match(header, form)) << header;
  for (const std::uint32_t capacity : {0U, 1U, 20U, static_cast<std::uint32_t>(length)}) {
    EXPECT_LE(TraceFormatHeader(buffer, capacity, 3, 0, "BlobController"), 0) << capacity;
  }
}

TEST(Host, HearsOfFatalErrorsAndExceptions) {
  std::vector<Line> lines;
  BlobringHostSetTraceSink(Collect, &lines);
  std::string heard;
  BlobringHostSetFatalErrorHandler(
      [](void* context, uint32_t code, const char* file, int line) {
        *static_cast<std::string*>(context) = std::to_string(code) + file + std::to_string(line);
      },
      &heard);
  const uint32_t before = BlobringHostFatalErrorCount();
  DeviceFatalError(0x49380D, "File", 20);
  BlobringHostSetFatalErrorHandler(nullptr, nullptr);
  DeviceFatalError(1, "File", 20);
  BlobringHostSetTraceSink(nullptr, nullptr);
  EXPECT_EQ(BlobringHostFatalErrorCount(), before + 2);
  EXPECT_EQ(heard, "4798477File20");
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0], (Line{BLOBRING_HOST_ERROR, "Blobring", "fatal error 0x49380D at File line 20"}));

  std::vector<std::uintptr_t> raised;
  BlobringHostSetExceptionHandler(
      [](void* context, uint32_t code, uint32_t flags, uint32_t count, const uintptr_t* arguments) {
        auto& out = *static_cast<std::vector<std::uintptr_t>*>(context);
        out.assign({code, flags});
        out.insert(out.end(), arguments, arguments + count);
      },
      &raised);
  const std::uintptr_t arguments[] = {5, 6};
  RaiseException(0x49380D, 1, 2, arguments);
  BlobringHostSetExceptionHandler(nullptr, nullptr);
  RaiseException(1, 0, 0, nullptr);
  EXPECT_EQ(raised, (std::vector<std::uintptr_t>{0x49380D, 1, 5, 6}));
}

TEST(Threads, HaveIdsOfTheirOwnAlsoAfterAFork) {
  const DWORD own = GetCurrentThreadId();
  EXPECT_EQ(own, static_cast<DWORD>(getpid()));
  DWORD other = own;
  std::thread([&] { other = GetCurrentThreadId(); }).join();
  EXPECT_NE(other, own);
  EXPECT_EQ(InChild([] { return GetCurrentThreadId() == static_cast<DWORD>(getpid()) ? 0 : 1; }), 0);
}

TEST(Threads, SleepAsLongAsAsked) {
  const auto start = std::chrono::steady_clock::now();
  Sleep(20);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
}

}  // namespace
