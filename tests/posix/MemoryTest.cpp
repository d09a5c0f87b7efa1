#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "blobring/host.h"
#include "platform/MemoryManager.h"
#include "platform/posix/Sanitizer.h"
#include "tests/posix/Support.h"

namespace {

using Vell::Common::System::OS::Memory::kLifeSpanDefault;
using Vell::Common::System::OS::Memory::TesselMemoryManager;

constexpr unsigned long kPool = 31;

void* Take(unsigned long size, unsigned long tag = 1) {
  void* block = &block;
  const int status = TesselMemoryManager::GetInstance(2048)->Alloc(&block, size, kPool, kLifeSpanDefault, tag);
  EXPECT_EQ(block == nullptr, status < 0);
  return block;
}

int Give(void* block) {
  return TesselMemoryManager::GetInstance(2048)->Free(block);
}

BlobringHostMemoryUse Total() {
  BlobringHostMemoryUse total;
  BlobringHostMemoryTotal(&total);
  return total;
}

BlobringHostMemoryUse UseOf(std::uint32_t tag) {
  BlobringHostMemoryUse accounts[BLOBRING_HOST_MEMORY_ACCOUNT_COUNT];
  const uint32_t count = BlobringHostMemoryByTag(accounts, BLOBRING_HOST_MEMORY_ACCOUNT_COUNT);
  for (uint32_t i = 0; i < count; ++i) {
    if (accounts[i].pool == kPool && accounts[i].tag == tag) return accounts[i];
  }
  return {};
}

struct Block {
  unsigned char* start;
  std::size_t size;
  unsigned char mark;

  bool IsWhole() const {
    return std::all_of(start, start + size, [this](unsigned char byte) { return byte == mark; });
  }
};

Block Marked(std::size_t size, std::mt19937& random) {
  const Block block{static_cast<unsigned char*>(Take(size)), size, static_cast<unsigned char>(random())};
  if (block.start != nullptr) std::memset(block.start, block.mark, size);
  return block;
}

std::size_t RandomSize(std::mt19937& random) {
  constexpr std::size_t kLimits[] = {16, 64, 200, 200, 1100, 1100, 20000, 200000};
  return random() % kLimits[random() % std::size(kLimits)];
}

// Takes and gives back at random; a block that another one reaches into, or
// that the manager itself writes to, loses its mark.
void Churn(unsigned seed, int steps) {
  std::mt19937 random(seed);
  std::vector<Block> blocks;
  for (int step = 0; step < steps; ++step) {
    if (blocks.empty() || random() % 100 < 52) {
      blocks.push_back(Marked(RandomSize(random), random));
      ASSERT_NE(blocks.back().start, nullptr);
    } else {
      std::swap(blocks[random() % blocks.size()], blocks.back());
      ASSERT_TRUE(blocks.back().IsWhole()) << "seed " << seed << " step " << step;
      ASSERT_EQ(Give(blocks.back().start), 0);
      blocks.pop_back();
    }
  }
  for (const Block& block : blocks) {
    EXPECT_TRUE(block.IsWhole()) << "seed " << seed;
    ASSERT_EQ(Give(block.start), 0);
  }
}

TEST(Memory, GivesAlignedBlocksOfEverySizeThatDoNotOverlap) {
  const BlobringHostMemoryUse before = Total();
  std::mt19937 random(1);
  std::vector<Block> blocks;
  for (std::size_t size = 0; size < 70000; size += size < 1100 ? 1 : 997) {
    for (int i = 0; i < 5; ++i) {
      blocks.push_back(Marked(size, random));
      ASSERT_NE(blocks.back().start, nullptr) << size;
      const std::uintptr_t alignment = size % 16 == 0 && size != 0 ? 16 : 8;
      ASSERT_EQ(reinterpret_cast<std::uintptr_t>(blocks.back().start) % alignment, 0U) << size;
    }
  }
  std::shuffle(blocks.begin(), blocks.end(), random);
  for (const Block& block : blocks) {
    ASSERT_TRUE(block.IsWhole()) << block.size;
    ASSERT_EQ(Give(block.start), 0);
  }
  EXPECT_EQ(Total().liveBlocks, before.liveBlocks);
  EXPECT_EQ(Total().liveBytes, before.liveBytes);
}

// Every block of a region is used to its last byte, there is another region
// for the next one, and what is given back in between serves again.
TEST(Memory, FillsRegionsToTheLastBlock) {
  std::mt19937 random(2);
  for (const std::size_t size : {8U, 16U, 24U, 88U, 120U, 1024U, 1025U, 2800U, 4096U, 5000U, 10000U, 16320U}) {
    SCOPED_TRACE(size);
    std::vector<Block> blocks;
    for (std::size_t taken = 0; taken < std::size_t{200} * 1024; taken += size) blocks.push_back(Marked(size, random));
    const std::uint64_t systemBytes = Total().systemBytes;
    for (std::size_t i = 0; i < blocks.size(); i += 3) ASSERT_EQ(Give(blocks[i].start), 0);
    for (std::size_t i = 0; i < blocks.size(); i += 3) blocks[i] = Marked(size, random);
    EXPECT_EQ(Total().systemBytes, systemBytes);
    for (const Block& block : blocks) {
      ASSERT_TRUE(block.IsWhole());
      ASSERT_EQ(Give(block.start), 0);
    }
  }
}

TEST(Memory, SurvivesAnyOrderOfUse) {
  const auto given = static_cast<unsigned>(GTEST_FLAG_GET(random_seed));  // --gtest_random_seed repeats a run
  Churn(given != 0 ? given : std::random_device()(), 50000);
}

TEST(Memory, ServesSeveralThreads) {
  const BlobringHostMemoryUse before = Total();
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < 4; ++t) threads.emplace_back(Churn, 100 + t, 5000);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(Total().liveBlocks, before.liveBlocks);
  EXPECT_EQ(Total().liveBytes, before.liveBytes);
}

TEST(Memory, AccountsForPoolsAndTags) {
  void* first = Take(100, 7001);
  void* second = Take(50, 7001);
  void* third = Take(8, 7002);
  Give(first);
  const BlobringHostMemoryUse use = UseOf(7001);
  EXPECT_EQ(use.liveBlocks, 1U);
  EXPECT_EQ(use.liveBytes, 56U);
  EXPECT_EQ(use.peakBytes, 104U + 56U);
  EXPECT_EQ(use.allocationCount, 2U);
  EXPECT_EQ(UseOf(7002).liveBytes, 8U);
  Give(second);
  Give(third);
  EXPECT_EQ(UseOf(7001).liveBlocks, 0U);
  EXPECT_EQ(UseOf(7001).systemBytes, 0U);
}

TEST(Memory, PutsMoreAccountsThanItKnowsIntoOne) {
  const int result = InChild([] {
    for (unsigned long tag = 0; tag < 200; ++tag) {
      if (Take(8, 100000 + tag) == nullptr) return 1;
    }
    BlobringHostMemoryUse accounts[BLOBRING_HOST_MEMORY_ACCOUNT_COUNT + 1];
    const uint32_t count = BlobringHostMemoryByTag(accounts, BLOBRING_HOST_MEMORY_ACCOUNT_COUNT + 1);
    if (count != BLOBRING_HOST_MEMORY_ACCOUNT_COUNT) return 2;
    if (accounts[count - 1].tag != BLOBRING_HOST_MEMORY_OTHERS || accounts[count - 1].liveBlocks < 100) return 3;
    return 0;
  });
  EXPECT_EQ(result, 0);
}

TEST(Memory, RefusesWhatItDidNotGiveOut) {
  void* small = Take(40);
  void* medium = Take(5000);
  void* large = Take(100000);
  void* kept = Take(40);  // so that the region of `small` stays
  int onStack = 0;
  const std::unique_ptr<int> onHeap = std::make_unique<int>();
  const std::uint64_t live = Total().liveBlocks;

  // NOLINTBEGIN(performance-no-int-to-ptr): addresses of no object
  void* const foreign[] = {&onStack,
                           onHeap.get(),
                           reinterpret_cast<void*>(Give),
                           reinterpret_cast<void*>(8),
                           reinterpret_cast<void*>(UINTPTR_MAX),
                           static_cast<char*>(small) + 8,
                           static_cast<char*>(small) - 1,
                           static_cast<char*>(medium) + 16,
                           static_cast<char*>(large) + 16,
                           static_cast<char*>(large) + 70000,
                           reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(small) & ~std::uintptr_t{0xFFFF})};
  // NOLINTEND(performance-no-int-to-ptr)
  for (void* address : foreign) EXPECT_LT(Give(address), 0) << address;
  EXPECT_EQ(Total().liveBlocks, live);

  for (void* block : {small, medium, large, kept}) EXPECT_EQ(Give(block), 0);
  for (void* block : {small, medium, large, kept}) EXPECT_LT(Give(block), 0) << "given back twice";
  EXPECT_EQ(Give(nullptr), 0);
  EXPECT_EQ(Total().liveBlocks, live - 4);
}

TEST(Memory, GivesNothingRatherThanTooLittle) {
  const std::uint64_t failures = Total().failureCount;
  for (const unsigned long size :
       {ULONG_MAX, ULONG_MAX - 127, ULONG_MAX - 4096, ULONG_MAX - 65536, ULONG_MAX / 4 * 3}) {
    EXPECT_EQ(Take(size), nullptr) << size;
  }
  EXPECT_EQ(Total().failureCount, failures + 5);
  EXPECT_LT(TesselMemoryManager::GetInstance(2048)->Alloc(nullptr, 8, kPool, kLifeSpanDefault, 1), 0);

  void* first = Take(0);
  void* second = Take(0);
  EXPECT_NE(first, second);
  EXPECT_EQ(Give(first) + Give(second), 0);
}

#ifndef BLOBRING_ADDRESS_SANITIZER
// The sanitizer's own mappings do not fit under such a limit.
TEST(Memory, RecoversFromExhaustion) {
  const int result = InChild([] {
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlim_t room = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (100 << 20);
    const rlimit limit{room, room};
    setrlimit(RLIMIT_AS, &limit);
    for (const std::size_t size : {120U, 100000U}) {
      std::vector<void*> blocks;
      blocks.reserve(2'000'000);
      while (void* block = Take(size)) blocks.push_back(block);
      if (blocks.size() < 100 || UseOf(1).failureCount == 0) return 1;
      for (void* block : blocks) {
        if (Give(block) != 0) return 2;
      }
    }
    return Total().systemBytes < (1U << 20) ? 0 : 3;
  });
  EXPECT_EQ(result, 0);
}
#endif

TEST(Memory, CostsLittleBesideTheBlocks) {
  constexpr std::size_t kCount = 1'000'000;
  std::vector<void*> blocks(kCount);
  for (const std::size_t size : {88U, 120U}) {
    const std::uint64_t before = Total().systemBytes;
    for (void*& block : blocks) block = Take(size, 7100);
    const double perBlock = static_cast<double>(Total().systemBytes - before) / kCount;
    std::cout << "[ MEASURED ] " << size << "-byte blocks take " << perBlock << " bytes each\n";
    EXPECT_LE(perBlock, static_cast<double>(size) + 1);
    for (void* block : blocks) Give(block);
    EXPECT_LE(Total().systemBytes, before + std::size_t{4} * 65536) << "empty regions stay";
  }

  const std::uint64_t before = Total().systemBytes;
  const auto page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  for (const std::size_t size : {20000U, 65536U, 1000000U}) {
    void* block = Take(size, 7100);
    EXPECT_LE(Total().systemBytes - before, size + page + 128);
    Give(block);
    EXPECT_EQ(Total().systemBytes, before);
  }
}

}  // namespace
