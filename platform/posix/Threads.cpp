// Threads and time.
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "platform/Win32.h"

namespace {

struct Ids {
  DWORD thread, process;
};
constinit thread_local Ids cached{};  // zeros until asked for

// The child of a fork runs a copy of the calling thread under other ids. The C library forgets the
// handler when this library is unloaded.
Ids CurrentIds() {
  static const bool isToldOfForks = pthread_atfork(nullptr, nullptr, [] { cached = {}; }) == 0;
  if (cached.process == 0 || !isToldOfForks)
    cached = {static_cast<DWORD>(gettid()), static_cast<DWORD>(getpid())};
  return cached;
}

}  // namespace

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
