// The kernel's calls as the linker puts them in front of the real ones: they
// fail on request and tell what was made durable, in which order.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct FailingCalls {
  int fdatasyncError = 0;  // errno values; 0: the real call
  int fsyncError = 0;
  int renameat2Error = 0;
  bool interrupts = false;             // every other transfer fails with EINTR
  std::size_t maxTransfer = 0;         // bytes at a time; 0: no limit
  std::size_t room = SIZE_MAX;         // bytes until a write fails with ENOSPC and a read with EIO
  std::function<void()> beforeRename;  // runs once

  // "data <file>", "names <directory>", "drop <file>"; the last path component.
  std::vector<std::string> calls;
};

// In force now.
extern FailingCalls failing;
