// Threads, time and exceptions.
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "blobring/host.h"
#include "platform/Win32.h"
#include "platform/posix/HostCallback.h"

namespace {

constinit thread_local DWORD cachedThreadId = 0;  // 0 until it was asked for

constinit platform::HostCallback<BlobringHostExceptionHandler> exceptionHandler;

// The child of a fork runs a copy of the calling thread under another id.
void ForgetThreadId() {
  cachedThreadId = 0;
}

DWORD AskThreadId() {
  [[maybe_unused]] static const int registered = pthread_atfork(nullptr, nullptr, ForgetThreadId);
  cachedThreadId = static_cast<DWORD>(gettid());
  return cachedThreadId;
}

}  // namespace

DWORD GetCurrentThreadId() {
  return cachedThreadId != 0 ? cachedThreadId : AskThreadId();
}

void Sleep(DWORD milliseconds) {
  timespec left{static_cast<time_t>(milliseconds / 1000), static_cast<long>(milliseconds % 1000) * 1'000'000};
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
