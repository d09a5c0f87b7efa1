// The platform's memory manager (platform/MemoryManager.h) for tests: counts
// what is live per pool and tag, and refuses chosen requests and releases.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace sim {

class SimMemory {
 public:
  struct Account {
    unsigned long pool;
    unsigned long tag;
    std::size_t liveBlocks;
    std::size_t liveBytes;
    std::size_t peakBytes;
    std::size_t allocations;  // ever
  };

  // Refuses the n-th allocation (or release) from now, 1 being the next; with
  // fromThenOn every later one too. 0: none.
  void RefuseAlloc(std::uint64_t n, bool fromThenOn = false);
  void RefuseFree(std::uint64_t n, bool fromThenOn = false);
  std::uint64_t refusedAllocs() const { return allocs_.refused; }
  std::uint64_t refusedFrees() const { return frees_.refused; }

  std::uint64_t allocations() const { return allocations_; }
  std::uint64_t releases() const { return releases_; }
  std::size_t liveBlocks() const { return liveBlocks_; }
  std::size_t liveBytes() const { return liveBytes_; }
  std::size_t peakBytes() const { return peakBytes_; }
  void ResetPeak() { peakBytes_ = liveBytes_; }
  const std::vector<Account>& accounts() const { return accounts_; }
  // The account of one pool and tag; all zero when nothing was ever asked of it.
  Account Of(unsigned long pool, unsigned long tag) const;

  void* Alloc(std::size_t size, unsigned long pool, unsigned long tag);
  // Negative when refused. Ends the program when block is none of ours.
  int Free(void* block);

 private:
  struct Refusal {
    std::uint64_t countdown = 0;
    bool fromThenOn = false;
    std::uint64_t refused = 0;
    bool Decide();
  };
  std::size_t AccountIndex(unsigned long pool, unsigned long tag);

  Refusal allocs_, frees_;
  std::uint64_t allocations_ = 0, releases_ = 0;
  std::size_t liveBlocks_ = 0, liveBytes_ = 0, peakBytes_ = 0;
  std::vector<Account> accounts_;
};

SimMemory& Memory();

}  // namespace sim
