// The 32-bit handles that callers hold, and the objects behind them.
//
// 0, 0xFFFFFFFF and 0xDEADBEEF (the store's mark for "no handle") are never handed out, and the
// value of a closed handle does not come back before 2^31 others were used.
//
// Threads: any, for different handles. A single handle is closed while no other thread uses it; how
// far threads may share it is said with each call.
// Constant-initialised and never destroyed: files are closed until the very end.
#pragma once

#include <algorithm>
#include <atomic>
#include <mutex>
#include <utility>

#include "platform/posix/Kernel.h"

namespace platform {

// Tables whose first handles are 2^31 apart have no handle in common.
template <typename Object, HANDLE firstHandle, std::uint32_t capacity, Guarded guarded>
class HandleTable {
 public:
  // A handle for object; INVALID_HANDLE_VALUE when none is left.
  HANDLE Add(Object* object) {
    const std::lock_guard lock(MutexOf(guarded));
    for (std::uint32_t tried = 0; tried < capacity; ++tried) {
      const HANDLE handle = firstHandle + next_;
      next_ = (next_ + 1) % (INVALID_HANDLE_VALUE / 2);
      Entry& entry = entries_[handle % capacity];
      if (entry.object != nullptr || handle == kNoHandle) continue;
      entry.object = object;
      entry.handle.store(handle, std::memory_order_release);
      return handle;
    }
    return INVALID_HANDLE_VALUE;
  }

  // The object, or null and ERROR_INVALID_HANDLE as the thread's error. Remove also ends the
  // handle; the object is the caller's then.
  Object* Find(HANDLE handle) {
    const Entry& entry = entries_[handle % capacity];
    if (entry.handle.load(std::memory_order_acquire) == handle && entry.object != nullptr)
      return entry.object;
    return Result(EBADF), nullptr;
  }
  Object* Remove(HANDLE handle) {
    const std::lock_guard lock(MutexOf(guarded));
    Object* const object = Find(handle);
    if (object == nullptr) return nullptr;
    Entry& entry = entries_[handle % capacity];
    entry.handle.store(INVALID_HANDLE_VALUE, std::memory_order_relaxed);
    return std::exchange(entry.object, nullptr);
  }

  // Whether test is true of any object. It is called with the table locked.
  template <typename Test>
  bool HasAny(Test test) {
    const std::lock_guard lock(MutexOf(guarded));
    return std::any_of(std::begin(entries_), std::end(entries_), [&](const Entry& entry) {
      return entry.object != nullptr && test(*entry.object);
    });
  }

 private:
  static constexpr HANDLE kNoHandle = 0xDEADBEEFU;

  struct Entry {
    std::atomic<HANDLE> handle;  // set after the object: a look-up takes no lock
    Object* object;              // null while free
  };

  HANDLE next_ = 0;
  Entry entries_[capacity] = {};
};

}  // namespace platform
