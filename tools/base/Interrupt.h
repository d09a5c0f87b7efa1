// Ctrl-C, and the other signals that ask a command to stop.
#pragma once

namespace tool {

// SIGINT, SIGTERM and SIGHUP are noted from now on. Another one kills, unless it follows within 0.2
// seconds: timeout(1) signals a process and then its group.
void InitInterrupt();

bool IsInterrupted();

// Throws Interrupted once a signal has arrived. Whatever takes long calls this now and then;
// Progress does so for those who show one.
void ThrowIfInterrupted();

}  // namespace tool
