#include "tests/support/SimMemory.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "platform/MemoryManager.h"

namespace sim {

namespace {

constexpr std::uint64_t kLive = 0x5AFE5AFE0B10B000U;

// Ahead of every block. Its size keeps the block aligned for any type.
struct alignas(std::max_align_t) BlockHead {
  std::uint64_t mark;
  std::size_t size;
  std::size_t account;
};

}  // namespace

SimMemory& Memory() {
  // Never destroyed: the store gives memory back while the program ends.
  static auto* memory = new SimMemory;
  return *memory;
}

bool SimMemory::Refusal::Decide() {
  if (countdown == 0) return false;
  if (countdown > 1) {
    --countdown;
    return false;
  }
  if (!fromThenOn) countdown = 0;
  ++refused;
  return true;
}

void SimMemory::RefuseAlloc(std::uint64_t n, bool fromThenOn) { allocs_ = {n, fromThenOn, 0}; }
void SimMemory::RefuseFree(std::uint64_t n, bool fromThenOn) { frees_ = {n, fromThenOn, 0}; }

std::size_t SimMemory::AccountIndex(unsigned long pool, unsigned long tag) {
  for (std::size_t i = 0; i < accounts_.size(); ++i)
    if (accounts_[i].tag == tag && accounts_[i].pool == pool) return i;
  accounts_.push_back({pool, tag, 0, 0, 0, 0});
  return accounts_.size() - 1;
}

SimMemory::Account SimMemory::Of(unsigned long pool, unsigned long tag) const {
  for (const Account& account : accounts_)
    if (account.tag == tag && account.pool == pool) return account;
  return {pool, tag, 0, 0, 0, 0};
}

void* SimMemory::Alloc(std::size_t size, unsigned long pool, unsigned long tag) {
  ++allocations_;
  if (allocs_.Decide() || size > SIZE_MAX - sizeof(BlockHead)) return nullptr;
  auto* head = static_cast<BlockHead*>(std::malloc(sizeof(BlockHead) + size));
  if (head == nullptr) return nullptr;
  *head = {kLive, size, AccountIndex(pool, tag)};
  Account& account = accounts_[head->account];
  ++account.allocations;
  ++account.liveBlocks;
  account.liveBytes += size;
  account.peakBytes = std::max(account.peakBytes, account.liveBytes);
  ++liveBlocks_;
  liveBytes_ += size;
  peakBytes_ = std::max(peakBytes_, liveBytes_);
  return head + 1;
}

int SimMemory::Free(void* block) {
  ++releases_;
  if (frees_.Decide()) {
    refusedBlocks_.push_back(block);  // lost to the store, not to a leak checker
    return -1;
  }
  BlockHead* head = static_cast<BlockHead*>(block) - 1;
  if (block == nullptr || head->mark != kLive) {
    std::fprintf(stderr, "SimMemory: release of a block that is not live: %p\n", block);
    std::abort();
  }
  Account& account = accounts_[head->account];
  --account.liveBlocks;
  account.liveBytes -= head->size;
  --liveBlocks_;
  liveBytes_ -= head->size;
  head->mark = 0;
  std::free(head);
  return 0;
}

}  // namespace sim

namespace Vell::Common::System::OS::Memory {

int MemoryManager::Alloc(void** out, unsigned long size, unsigned long pool, LifeSpan /*lifeSpan*/, unsigned long tag) {
  *out = sim::Memory().Alloc(size, pool, tag);
  return *out == nullptr ? -1 : 0;
}

int MemoryManager::Free(void* block) { return sim::Memory().Free(block); }

TesselMemoryManager* TesselMemoryManager::GetInstance(unsigned int /*kind*/) {
  static TesselMemoryManager instance;
  return &instance;
}

}  // namespace Vell::Common::System::OS::Memory
