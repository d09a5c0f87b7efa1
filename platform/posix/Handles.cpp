#include "platform/posix/Handles.h"

#include <atomic>
#include <mutex>

#include "platform/posix/LastError.h"

namespace platform {
namespace {

constexpr unsigned kSlotBits = 12;
constexpr std::uint32_t kSlotCount = 1U << kSlotBits;
constexpr std::uint32_t kLastGeneration = (1U << (32 - kSlotBits)) - 2;  // so that no handle is 0xFFFFFFFF
constexpr std::uint32_t kReservedGeneration = 0xDEADBEEFU >> kSlotBits;

// Slots wait in a queue of at least this length before they are used again,
// which makes a handle's value come back only after 2^26 opens.
constexpr std::uint32_t kMinQueueLength = 64;

struct Slot {
  std::atomic<HANDLE> handle;  // 0 while free; published last, withdrawn first
  HandleKind kind;
  void* object;
  std::uint32_t generation;
  std::uint32_t nextFree;
};

// In memory that starts out as zeros and is not destroyed; pages that no slot
// was used on are never touched.
struct Table {
  std::mutex mutex;  // for everything but looking up
  std::uint32_t usedSlots;
  std::uint32_t queueLength;
  std::uint32_t queueHead;
  std::uint32_t queueTail;
  Slot slots[kSlotCount];
};
constinit Table table{};

std::uint32_t NextGeneration(std::uint32_t generation) {
  if (++generation == kReservedGeneration) ++generation;
  return generation > kLastGeneration ? 1 : generation;
}

// The next two with the mutex held.

std::uint32_t TakeSlot() {
  if (table.usedSlots < kSlotCount && table.queueLength < kMinQueueLength) return table.usedSlots++;
  if (table.queueLength == 0) return kSlotCount;
  const std::uint32_t number = table.queueHead;
  table.queueHead = table.slots[number].nextFree;
  --table.queueLength;
  return number;
}

void QueueSlot(std::uint32_t number) {
  if (table.queueLength == 0) {
    table.queueHead = number;
  } else {
    table.slots[table.queueTail].nextFree = number;
  }
  table.queueTail = number;
  ++table.queueLength;
}

Slot* SlotOf(HANDLE handle, HandleKind kind) {
  Slot& slot = table.slots[handle % kSlotCount];
  if (handle == 0 || slot.handle.load(std::memory_order_acquire) != handle || slot.kind != kind) {
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  return &slot;
}

}  // namespace

HANDLE AddHandle(HandleKind kind, void* object) {
  const std::lock_guard lock(table.mutex);
  const std::uint32_t number = TakeSlot();
  if (number == kSlotCount) return INVALID_HANDLE_VALUE;
  Slot& slot = table.slots[number];
  slot.generation = NextGeneration(slot.generation);
  slot.kind = kind;
  slot.object = object;
  const HANDLE handle = slot.generation << kSlotBits | number;
  slot.handle.store(handle, std::memory_order_release);
  return handle;
}

void* FindHandle(HANDLE handle, HandleKind kind) {
  const Slot* slot = SlotOf(handle, kind);
  return slot == nullptr ? nullptr : slot->object;
}

void* RemoveHandle(HANDLE handle, HandleKind kind) {
  const std::lock_guard lock(table.mutex);
  Slot* slot = SlotOf(handle, kind);
  if (slot == nullptr) return nullptr;
  slot->handle.store(0, std::memory_order_relaxed);
  QueueSlot(handle % kSlotCount);
  return slot->object;
}

}  // namespace platform
