// Threads, time and exceptions.
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "blobring/host.h"
#include "platform/Win32.h"
#include "platform/posix/HostCallback.h"

namespace {

constinit thread_local DWORD cachedThreadId = 0;  // 0 until it was asked for
constinit std::atomic<DWORD> cachedProcessId{0};

constinit platform::HostCallback<BlobringHostExceptionHandler> exceptionHandler;

// The child of a fork runs a copy of the calling thread under other ids.
void ForgetIds() {
  cachedThreadId = 0;
  cachedProcessId.store(0, std::memory_order_relaxed);
}

// Whether an id may be cached. The C library forgets the handler when this
// library is unloaded.
bool IsToldOfForks() {
  static const bool isTold = pthread_atfork(nullptr, nullptr, ForgetIds) == 0;
  return isTold;
}

}  // namespace

DWORD GetCurrentThreadId() {
  if (cachedThreadId != 0) return cachedThreadId;
  const auto id = static_cast<DWORD>(gettid());
  if (IsToldOfForks()) cachedThreadId = id;
  return id;
}

DWORD GetCurrentProcessId() {
  if (const DWORD id = cachedProcessId.load(std::memory_order_relaxed); id != 0) return id;
  const auto id = static_cast<DWORD>(getpid());
  if (IsToldOfForks()) cachedProcessId.store(id, std::memory_order_relaxed);
  return id;
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
