#include "tools/base/Interrupt.h"

#include <csignal>
#include <ctime>

#include "tools/base/Error.h"

namespace tool {
namespace {

constexpr double kSameWithin = 0.2;  // seconds

volatile std::sig_atomic_t received = 0;
std::timespec receivedAt = {};  // CLOCK_MONOTONIC

void OnSignal(int number) {
  std::timespec now = {};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  const double since = static_cast<double>(now.tv_sec - receivedAt.tv_sec) +
                       static_cast<double>(now.tv_nsec - receivedAt.tv_nsec) / 1e9;
  if (received == 0) {
    receivedAt = now;
    received = number;
  } else if (since > kSameWithin) {
    std::signal(number, SIG_DFL);
    std::raise(number);
  }
}

}  // namespace

void InitInterrupt() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action = {};
    ::sigaction(signal, nullptr, &action);
    if (action.sa_handler == SIG_IGN) continue;  // as nohup(1) wants it
    action.sa_handler = OnSignal;
    action.sa_flags = 0;  // without SA_RESTART: a read that waits for input ends
    for (const int other : {SIGINT, SIGTERM, SIGHUP}) ::sigaddset(&action.sa_mask, other);
    ::sigaction(signal, &action, nullptr);
  }
}

bool IsInterrupted() {
  return received != 0;
}

void ThrowIfInterrupted() {
  if (IsInterrupted()) throw Interrupted("interrupted");
}

}  // namespace tool
