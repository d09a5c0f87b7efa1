#include "platform/posix/Handles.h"

#include <mutex>

#include "platform/posix/LastError.h"

namespace platform {
namespace {

constexpr std::uint32_t kSlotCount = 4096;
constexpr HANDLE kNoHandle = 0xDEADBEEFU;

struct Slot {
  HANDLE handle;  // 0 while free
  HandleKind kind;
  void* object;
};

// Zeros at the start and not destroyed: files are closed until the very end.
struct Table {
  std::mutex mutex;
  HANDLE last;
  Slot slots[kSlotCount];
};
constinit Table table{};

Slot* SlotOf(HANDLE handle, HandleKind kind) {
  Slot& slot = table.slots[handle % kSlotCount];
  if (handle != 0 && slot.handle == handle && slot.kind == kind) return &slot;
  SetLastError(ERROR_INVALID_HANDLE);
  return nullptr;
}

}  // namespace

HANDLE AddHandle(HandleKind kind, void* object) {
  const std::lock_guard lock(table.mutex);
  for (std::uint32_t tried = 0; tried < kSlotCount; ++tried) {
    const HANDLE handle = ++table.last;
    if (handle == 0 || handle == kNoHandle || handle == INVALID_HANDLE_VALUE) continue;
    Slot& slot = table.slots[handle % kSlotCount];
    if (slot.handle != 0) continue;
    slot = {handle, kind, object};
    return handle;
  }
  return INVALID_HANDLE_VALUE;
}

void* FindHandle(HANDLE handle, HandleKind kind) {
  const std::lock_guard lock(table.mutex);
  const Slot* slot = SlotOf(handle, kind);
  return slot == nullptr ? nullptr : slot->object;
}

void* RemoveHandle(HANDLE handle, HandleKind kind) {
  const std::lock_guard lock(table.mutex);
  Slot* slot = SlotOf(handle, kind);
  if (slot == nullptr) return nullptr;
  slot->handle = 0;
  return slot->object;
}

}  // namespace platform
