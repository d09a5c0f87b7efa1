// Any number of readers, or one writer. A writer that waits holds off the readers that come later:
// beside four of them, std::shared_mutex would let it wait for many milliseconds.
//
// Locks nothing until it is turned on, nor in a child of fork: the threads that could release it
// there exist in the parent alone. For std::shared_lock and std::unique_lock.
#pragma once

#include <pthread.h>

#include "platform/Win32.h"

class ReadersLock {
 public:
  ReadersLock() = default;
  ReadersLock(const ReadersLock&) = delete;
  ReadersLock& operator=(const ReadersLock&) = delete;
  ~ReadersLock() { pthread_rwlock_destroy(&readersAndWriter); }

  void TurnOn() { process = GetCurrentProcessId(); }

  void lock() {
    if (IsOn()) pthread_rwlock_wrlock(&readersAndWriter);
  }
  void lock_shared() {
    if (IsOn()) pthread_rwlock_rdlock(&readersAndWriter);
  }
  void unlock() {
    if (IsOn()) pthread_rwlock_unlock(&readersAndWriter);
  }
  void unlock_shared() { unlock(); }

 private:
  bool IsOn() const { return process != 0 && process == GetCurrentProcessId(); }

  pthread_rwlock_t readersAndWriter = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
  DWORD process = 0;  // 0: it is off
};
