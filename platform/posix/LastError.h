// The calling thread's error code, and how errno becomes one.
#pragma once

#include "platform/Win32.h"

namespace platform {

// Sets what GetLastError() gives to the calling thread.
void SetLastError(DWORD code);

// The Win32 code for an errno value, ERROR_SUCCESS for 0, ERROR_GEN_FAILURE
// for one without a counterpart.
DWORD ErrorOf(int errorNumber);

// ErrorOf for a call that took a path. ENOENT alone does not tell whether the
// name or a directory on the way to it is missing; Win32 has a code for each.
DWORD PathErrorOf(int errorNumber, const char* path);

// TRUE and no error, or FALSE and `code` as the thread's error.
BOOL Result(DWORD code);

}  // namespace platform
