#include "tools/Interrupt.h"

#include <csignal>

#include "tools/Error.h"

namespace tool {
namespace {

volatile std::sig_atomic_t received = 0;

}  // namespace

void InitInterrupt() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action = {};
    ::sigaction(signal, nullptr, &action);
    if (action.sa_handler == SIG_IGN) continue;  // as nohup(1) wants it
    action.sa_handler = [](int number) { received = number; };
    // Without SA_RESTART: a read that waits for input ends.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
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
