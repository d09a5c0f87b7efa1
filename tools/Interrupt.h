// Ctrl-C, and the other signals that ask a command to stop.
#pragma once

namespace tool {

// SIGINT, SIGTERM and SIGHUP are noted from now on. The second one kills.
void InitInterrupt();

bool IsInterrupted();

// Throws Interrupted once a signal has arrived. Whatever takes long calls this now and then;
// Progress does so for those who show one.
void ThrowIfInterrupted();

}  // namespace tool
