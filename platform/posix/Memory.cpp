// The memory manager: malloc, with a head before each block that leads to the account of its pool
// and tag.
//
// Threads: any; a mutex guards the figures. Usable from the first static initialiser to the last
// static destructor.
#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <mutex>

#include "blobring/host.h"
#include "platform/MemoryManager.h"
#include "platform/posix/Kernel.h"

using platform::Guarded;
using platform::MutexOf;

namespace {

using Account = BlobringHostMemoryUse;

struct alignas(std::max_align_t) Head {
  Account* account;
  std::size_t size;  // as asked for
};

struct Manager {
  std::uint32_t accountCount;
  Account accounts[BLOBRING_HOST_MEMORY_ACCOUNT_COUNT];
  Account total;
};
constinit Manager manager{};

// The account of a pool and tag; the last one takes all that find no other.
Account& AccountOf(unsigned long pool, unsigned long tag) {
  constexpr std::uint32_t kLast = BLOBRING_HOST_MEMORY_ACCOUNT_COUNT - 1;
  for (std::uint32_t i = 0; i < manager.accountCount; ++i) {
    Account& account = manager.accounts[i];
    if (i == kLast || (account.pool == pool && account.tag == tag)) return account;
  }
  Account& added = manager.accounts[manager.accountCount++];
  const bool isLast = manager.accountCount > kLast;
  added.pool = isLast ? BLOBRING_HOST_MEMORY_OTHERS : static_cast<std::uint32_t>(pool);
  added.tag = isLast ? BLOBRING_HOST_MEMORY_OTHERS : static_cast<std::uint32_t>(tag);
  return added;
}

}  // namespace

namespace Vell::Common::System::OS::Memory {

int MemoryManager::Alloc(void** out, unsigned long size, unsigned long pool, LifeSpan /*lifeSpan*/,
                         unsigned long tag) {
  const bool fits = size <= std::numeric_limits<std::size_t>::max() - sizeof(Head);
  auto* head = fits ? static_cast<Head*>(std::malloc(sizeof(Head) + size)) : nullptr;
  *out = head == nullptr ? nullptr : head + 1;

  const std::lock_guard lock(MutexOf(Guarded::Memory));
  Account& own = AccountOf(pool, tag);
  if (head != nullptr) *head = {&own, size};
  for (Account* account : {&own, &manager.total}) {
    if (head == nullptr) {
      ++account->failureCount;
      continue;
    }
    ++account->allocationCount;
    ++account->liveBlocks;
    account->liveBytes += size;
    account->peakBytes = std::max(account->peakBytes, account->liveBytes);
  }
  return head == nullptr ? -1 : 0;
}

int MemoryManager::Free(void* block) {
  if (block == nullptr) return 0;
  Head* head = static_cast<Head*>(block) - 1;
  {
    const std::lock_guard lock(MutexOf(Guarded::Memory));
    for (Account* account : {head->account, &manager.total}) {
      --account->liveBlocks;
      account->liveBytes -= head->size;
    }
  }
  std::free(head);
  return 0;
}

TesselMemoryManager* TesselMemoryManager::GetInstance(unsigned int /*kind*/) {
  static constinit TesselMemoryManager instance;
  return &instance;
}

}  // namespace Vell::Common::System::OS::Memory

uint32_t BlobringHostMemoryByTag(BlobringHostMemoryUse* accounts, uint32_t capacity) {
  const std::lock_guard lock(MutexOf(Guarded::Memory));
  std::copy_n(manager.accounts, std::min(capacity, manager.accountCount), accounts);
  return manager.accountCount;
}

void BlobringHostMemoryTotal(BlobringHostMemoryUse* total) {
  const std::lock_guard lock(MutexOf(Guarded::Memory));
  *total = manager.total;
  total->pool = total->tag = BLOBRING_HOST_MEMORY_OTHERS;
}
