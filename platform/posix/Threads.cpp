// Threads, time and exceptions.
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "blobring/host.h"
#include "platform/Win32.h"
#include "platform/posix/HostCallback.h"

namespace {

constinit platform::HostCallback<BlobringHostExceptionHandler> exceptionHandler;

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

void RaiseException(DWORD code, DWORD flags, DWORD argumentCount, const std::uintptr_t* arguments) {
  const auto [handler, context] = exceptionHandler.Get();
  if (handler != nullptr) handler(context, code, flags, argumentCount, arguments);
}

void BlobringHostSetExceptionHandler(BlobringHostExceptionHandler* handler, void* context) {
  exceptionHandler.Set(handler, context);
}
