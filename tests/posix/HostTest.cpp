// What host.h promises: messages, records, memory figures; ids; and a library
// that can be unloaded.
#include <blobring/host.h>
#include <dlfcn.h>
#include <malloc.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/Diagnostics.h"
#include "platform/MemoryManager.h"
#include "tests/posix/Support.h"

namespace {

using Vell::Common::System::OS::Diagnostics::VellTrace;
using Vell::Common::System::OS::Memory::kLifeSpanDefault;
using Vell::Common::System::OS::Memory::TesselMemoryManager;

TEST(Messages, GoToTheSinkWholeOrAsLinesToStandardError) {
  const std::string longText(10000, 'x');
  const auto report = [&] {
    VellTrace trace("BlobController");
    trace.WriteWarnV("a warning %d ", 5);
    for (int i = 0; i < 3; ++i)
      trace.WriteErrorV("File: sharing violation file %s retry %d", "of retry 0", i);
    trace.WriteErrorV("two\nlines\n");
    trace.WriteErrorV("%s", ("100%d " + longText).c_str());
    DeviceFatalError(0x49380D, "File", 20);
  };
  std::string taken;
  const auto sink = [](void* out, int level, const char* source, const char* text) {
    *static_cast<std::string*>(out) += std::to_string(level) + source + ": " + text + "|";
  };
  BlobringHostSetTraceSink(sink, &taken);
  report();
  BlobringHostSetTraceSink(nullptr, nullptr);
  const std::string retry = "1BlobController: File: sharing violation file of retry 0 retry ";
  EXPECT_EQ(taken, "2BlobController: a warning 5 |" + retry + "0|" + retry + "1|" + retry +
                       "2|1BlobController: two\nlines|1BlobController: 100%d " + longText +
                       "|1Blobring: fatal error 0x49380D at File line 20|");

  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_EQ(InChild([&] { return dup2(ends[1], STDERR_FILENO), report(), 0; }), 0);
  std::string lines(20000, '\0');
  lines.resize(static_cast<std::size_t>(read(ends[0], lines.data(), lines.size())));
  EXPECT_EQ(
      lines,
      "Blobring error: File: sharing violation file of retry 0 retry 0\nBlobring error: two lines\n"
      "Blobring error: 100%d " +
          longText + "\nBlobring error: fatal error 0x49380D at File line 20\n");
  close(ends[0]);
  close(ends[1]);
}

TEST(Records, AreReadInOrderAndTheLostOnesCounted) {
  std::uint32_t ring = 0;
  GetTraceRingBuffer(8, &ring);
  std::vector<BlobringHostEvent> events(2000);
  uint32_t position = 0;
  uint32_t missed = 99;
  EXPECT_EQ(BlobringHostReadEvents(&position, events.data(), 2000, &missed), 0U);
  std::array<std::thread, 3> writers;
  for (std::uint32_t t = 0; t < 3; ++t) {
    writers[t] = std::thread([=] {
      for (std::uint32_t i = 0; i < 500; ++i) WriteEventToRingBuffer(ring, t, 14, i, 1, 2, i);
    });
  }
  for (std::thread& writer : writers) writer.join();
  std::uint32_t next = 1500 - 1024;
  EXPECT_EQ(BlobringHostReadEvents(&position, events.data(), 24, &missed), 24U);
  EXPECT_EQ(missed, next);
  EXPECT_EQ(BlobringHostReadEvents(&position, events.data() + 24, 2000, &missed), 1000U);
  EXPECT_EQ(missed, 0U);
  std::array<std::uint32_t, 3> last{};
  for (std::size_t i = 0; i < 1024; ++i) {
    const BlobringHostEvent& e = events[i];
    EXPECT_TRUE(e.sequence == next++ && e.ring == ring && ring != 0 && e.kind == 14 &&
                e.values[0] == e.values[3]);
    EXPECT_GE(e.values[0], last[e.threadId]);
    last[e.threadId] = e.values[0];
  }

  position = 0;
  RTTrace(100);
  RTTrace_4(104, 1, 2, 3, 4);
  BlobringHostNumericRecord r[3];
  ASSERT_EQ(BlobringHostReadNumericTrace(&position, r, 3, nullptr), 2U);
  EXPECT_TRUE(r[0].id == 100 && r[0].valueCount == 0 && r[1].valueCount == 4 &&
              r[1].values[3] == 4);
  EXPECT_EQ(r[1].threadId, GetCurrentThreadId());
}

TEST(Memory, IsAlignedAndAccountedFor) {
  const auto take = [](unsigned long size, unsigned long tag) {
    void* block = &block;
    TesselMemoryManager::GetInstance(2048)->Alloc(&block, size, 31, kLifeSpanDefault, tag);
    return block;
  };
  const auto give = [](void* block) { return TesselMemoryManager::GetInstance(2048)->Free(block); };
  for (const unsigned long size : {ULONG_MAX, ULONG_MAX - 15, ULONG_MAX / 2})
    EXPECT_EQ(take(size, 1), nullptr);
  void* first = take(100, 1);
  void* second = take(50, 1);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(second) % alignof(std::max_align_t), 0U);
  std::memset(second, 0xFF, 50);
  EXPECT_EQ(give(first), 0);
  BlobringHostMemoryUse use[BLOBRING_HOST_MEMORY_ACCOUNT_COUNT + 1];
  ASSERT_EQ(BlobringHostMemoryByTag(use, 1), 1U);
  EXPECT_TRUE(use->pool == 31 && use->tag == 1 && use->liveBlocks == 1 && use->liveBytes == 50 &&
              use->peakBytes == 150 && use->allocationCount == 2 && use->failureCount == 3);
  std::vector<void*> blocks;
  for (unsigned long tag = 2; tag < 200; ++tag) blocks.push_back(take(8, tag));
  ASSERT_EQ(BlobringHostMemoryByTag(use, BLOBRING_HOST_MEMORY_ACCOUNT_COUNT + 1), 64U);
  EXPECT_TRUE(use[63].tag == BLOBRING_HOST_MEMORY_OTHERS && use[63].liveBlocks == 199 - 63);
  for (void* block : blocks) give(block);
  EXPECT_EQ(give(second) + give(nullptr), 0);
  BlobringHostMemoryTotal(use);
  EXPECT_EQ(use->liveBlocks + use->liveBytes, 0U);
}

TEST(Ids, AreRightInAnotherThreadAndAfterAFork) {
  const DWORD own = GetCurrentThreadId();
  EXPECT_EQ(own, GetCurrentProcessId());
  std::thread([&] {
    EXPECT_TRUE(GetCurrentThreadId() != own && GetCurrentProcessId() == own);
  }).join();
  const auto isRight = [] { return GetCurrentProcessId() == static_cast<DWORD>(getpid()); };
  EXPECT_EQ(
      InChild([&] { return isRight() && GetCurrentThreadId() == GetCurrentProcessId() ? 0 : 1; }),
      0);
  EXPECT_TRUE(isRight());
}

// Each round loads the library, uses it, forks and unloads it. A store that is
// still open goes with it.
TEST_F(InDirectory, UnloadingGivesEverythingBack) {
  const auto mappings = [] {
    std::ifstream maps("/proc/self/maps");
    return std::count(std::istreambuf_iterator<char>(maps), {}, '\n');
  };
  const auto files = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const auto use = [](int row) {
    void* library = dlopen(BLOBRING_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto open = reinterpret_cast<decltype(&BCOpen)>(dlsym(library, "BCOpen"));
    const auto dispose = reinterpret_cast<decltype(&BCDispose)>(dlsym(library, "BCDispose"));
    int store = -1;
    std::thread([&] { store = open(".", nullptr); }).join();
    EXPECT_TRUE(store == 0 && (row % 2 == 0 || dispose(store) == 1));
    EXPECT_EQ(dlclose(library), 0);
    EXPECT_EQ(InChild([] { return 0; }), 0) << "a fork after it";
  };
  for (int row = 0; row < 20; ++row) use(row);  // until malloc's caches are full
  const auto mappingsBefore = mappings();
  const auto filesBefore = files();
  const std::size_t heapBefore = mallinfo2().uordblks;
  for (int row = 0; row < 40; ++row) use(row);
  EXPECT_LT(mappings(),
            mappingsBefore + 20);  // one a round would be 40; a sanitizer's allocator takes some
  EXPECT_EQ(files(), filesBefore);
  EXPECT_LT(mallinfo2().uordblks, heapBefore + 1000);  // 25 bytes a round
}

}  // namespace
