// Threads and time.
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "platform/posix/Kernel.h"

namespace {

struct Ids {
  DWORD thread, process;
};
constinit thread_local Ids cached{};  // zeros until asked for
constinit std::mutex mutexes[static_cast<std::size_t>(platform::Guarded::Count)];

void Lock() {
  for (std::mutex& mutex : mutexes) mutex.lock();
}
void Unlock() {
  for (std::mutex& mutex : mutexes) mutex.unlock();
}

// The child of a fork runs a copy of the calling thread under other ids.
void UnlockInChild() {
  Unlock();
  cached = {};
}

// False until this file is initialised. The C library forgets the handlers when this library is
// unloaded.
const bool isToldOfForks = pthread_atfork(Lock, Unlock, UnlockInChild) == 0;

Ids CurrentIds() {
  if (cached.process == 0 || !isToldOfForks)
    cached = {static_cast<DWORD>(gettid()), static_cast<DWORD>(getpid())};
  return cached;
}

}  // namespace

std::mutex& platform::MutexOf(Guarded what) {
  return mutexes[static_cast<std::size_t>(what)];
}

DWORD GetCurrentThreadId() {
  return CurrentIds().thread;
}

DWORD GetCurrentProcessId() {
  return CurrentIds().process;
}

void Sleep(DWORD milliseconds) {
  timespec left{static_cast<time_t>(milliseconds / 1000),
                static_cast<long>(milliseconds % 1000) * 1'000'000};
  while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
  }
}
