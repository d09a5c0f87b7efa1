// The memory manager: an account for each pool and tag, and in it a list of
// slabs with room for each size class.
//
// A block is aligned for every type of its size: to 16 bytes where the size
// asked for is a multiple of 16, else to 8 (an object that needs more has a
// size that is a multiple of it).
//
// Threads: any; one mutex guards everything here. Usable from the first static
// initialiser to the last static destructor.
#include <algorithm>
#include <mutex>

#include "blobring/host.h"
#include "platform/MemoryManager.h"
#include "platform/posix/Slab.h"

namespace platform {

struct Account {
  BlobringHostMemoryUse use;
  Slab* withRoom[kLargeClass];  // the heads of the lists
};

}  // namespace platform

namespace {

using platform::Account;
using platform::Slab;

constexpr int kDone = 0;
constexpr int kRefused = -1;

// Empty regions kept for the next slab: a block that is taken and given back
// over and over must not go to the system each time.
constexpr std::size_t kMaxSpareRegions = 4;

struct Manager {
  std::mutex mutex;
  std::uint32_t accountCount;
  Account accounts[BLOBRING_HOST_MEMORY_ACCOUNT_COUNT];
  Account* lastUsed;
  std::uint64_t liveBytes;
  std::uint64_t peakBytes;
  std::size_t spareCount;
  void* spareRegions[kMaxSpareRegions];
};
constinit Manager manager{};

// Everything below up to the member functions has the mutex held.

Account* AddAccount(std::uint32_t pool, std::uint32_t tag) {
  Account* account = &manager.accounts[manager.accountCount];
  if (++manager.accountCount == BLOBRING_HOST_MEMORY_ACCOUNT_COUNT) {
    pool = tag = BLOBRING_HOST_MEMORY_OTHERS;
  }
  account->use.pool = pool;
  account->use.tag = tag;
  return account;
}

Account* AccountOf(std::uint32_t pool, std::uint32_t tag) {
  const auto isIt = [=](const Account& account) { return account.use.pool == pool && account.use.tag == tag; };
  if (manager.lastUsed != nullptr && isIt(*manager.lastUsed)) return manager.lastUsed;
  Account* end = manager.accounts + manager.accountCount;
  Account* found = std::find_if(manager.accounts, end, isIt);
  if (found == end) {
    const bool full = manager.accountCount == BLOBRING_HOST_MEMORY_ACCOUNT_COUNT;
    found = full ? end - 1 : AddAccount(pool, tag);
  }
  manager.lastUsed = found;
  return found;
}

void LinkSlab(Slab* slab) {
  Slab*& head = slab->account->withRoom[slab->sizeClass];
  slab->previous = nullptr;
  slab->next = head;
  if (head != nullptr) head->previous = slab;
  head = slab;
}

void UnlinkSlab(Slab* slab) {
  Slab*& link = slab->previous != nullptr ? slab->previous->next : slab->account->withRoom[slab->sizeClass];
  link = slab->next;
  if (slab->next != nullptr) slab->next->previous = slab->previous;
}

Slab* NewSlab(platform::SizeClass sizeClass, Account* account) {
  const bool usesSpare = sizeClass.number != platform::kLargeClass && manager.spareCount > 0;
  Slab* slab = usesSpare ? LayOutSlab(manager.spareRegions[--manager.spareCount], sizeClass, account)
                         : MapSlab(sizeClass, account);
  if (slab != nullptr) account->use.systemBytes += slab->mappedSize;
  return slab;
}

void DropSlab(Slab* slab) {
  slab->account->use.systemBytes -= slab->mappedSize;
  if (slab->sizeClass != platform::kLargeClass && manager.spareCount < kMaxSpareRegions) {
    manager.spareRegions[manager.spareCount++] = slab;
  } else {
    platform::UnmapRegion(slab, slab->mappedSize);
  }
}

void* TakeSmall(std::size_t size, platform::SizeClass sizeClass, Account* account) {
  Slab* slab = account->withRoom[sizeClass.number];
  if (slab == nullptr) {
    slab = NewSlab(sizeClass, account);
    if (slab == nullptr) return nullptr;
    LinkSlab(slab);
  }
  void* block = TakeBlock(*slab, size);
  if (!HasRoom(*slab)) UnlinkSlab(slab);
  return block;
}

void* TakeLarge(std::size_t size, platform::SizeClass sizeClass, Account* account) {
  Slab* slab = NewSlab(sizeClass, account);
  return slab == nullptr ? nullptr : TakeBlock(*slab, size);
}

void CountTaken(BlobringHostMemoryUse& use, std::size_t blockSize) {
  ++use.allocationCount;
  ++use.liveBlocks;
  use.liveBytes += blockSize;
  use.peakBytes = std::max(use.peakBytes, use.liveBytes);
  manager.liveBytes += blockSize;
  manager.peakBytes = std::max(manager.peakBytes, manager.liveBytes);
}

void CountReturned(BlobringHostMemoryUse& use, std::size_t blockSize) {
  --use.liveBlocks;
  use.liveBytes -= blockSize;
  manager.liveBytes -= blockSize;
}

}  // namespace

namespace Vell::Common::System::OS::Memory {

int MemoryManager::Alloc(void** out, unsigned long size, unsigned long pool, LifeSpan /*lifeSpan*/, unsigned long tag) {
  if (out == nullptr) return kRefused;
  const platform::SizeClass sizeClass = platform::SizeClassOf(size);

  const std::lock_guard lock(manager.mutex);
  Account* account = AccountOf(static_cast<std::uint32_t>(pool), static_cast<std::uint32_t>(tag));
  *out = sizeClass.number == platform::kLargeClass ? TakeLarge(size, sizeClass, account)
                                                   : TakeSmall(size, sizeClass, account);
  if (*out == nullptr) {
    ++account->use.failureCount;
    return kRefused;
  }
  CountTaken(account->use, sizeClass.blockSize);
  return kDone;
}

// Null is nothing to free. An address that is not that of a live block is
// refused, also where its memory has gone back to the system.
int MemoryManager::Free(void* block) {
  if (block == nullptr) return kDone;
  const std::lock_guard lock(manager.mutex);
  auto* slab = static_cast<Slab*>(platform::RegionOf(block));
  if (slab == nullptr || slab->account == nullptr) return kRefused;

  const bool hadRoom = HasRoom(*slab);
  if (!ReturnBlock(*slab, block)) return kRefused;
  CountReturned(slab->account->use, slab->blockSize);
  const bool linked = hadRoom && slab->sizeClass != platform::kLargeClass;
  if (slab->liveCount == 0) {
    if (linked) UnlinkSlab(slab);
    DropSlab(slab);
  } else if (!linked) {
    LinkSlab(slab);
  }
  return kDone;
}

TesselMemoryManager* TesselMemoryManager::GetInstance(unsigned int /*kind*/) {
  static constinit TesselMemoryManager instance;
  return &instance;
}

}  // namespace Vell::Common::System::OS::Memory

uint32_t BlobringHostMemoryByTag(BlobringHostMemoryUse* accounts, uint32_t capacity) {
  const std::lock_guard lock(manager.mutex);
  const uint32_t count = std::min(capacity, manager.accountCount);
  for (uint32_t i = 0; i < count; ++i) accounts[i] = manager.accounts[i].use;
  return manager.accountCount;
}

void BlobringHostMemoryTotal(BlobringHostMemoryUse* total) {
  const std::lock_guard lock(manager.mutex);
  *total = {};
  total->pool = total->tag = BLOBRING_HOST_MEMORY_OTHERS;
  total->peakBytes = manager.peakBytes;
  total->systemBytes = manager.spareCount * platform::kRegionSize;
  for (uint32_t i = 0; i < manager.accountCount; ++i) {
    const BlobringHostMemoryUse& use = manager.accounts[i].use;
    total->liveBlocks += use.liveBlocks;
    total->liveBytes += use.liveBytes;
    total->allocationCount += use.allocationCount;
    total->failureCount += use.failureCount;
    total->systemBytes += use.systemBytes;
  }
}
