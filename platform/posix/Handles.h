// The 32-bit handles that callers hold, and the objects behind them.
//
// 0, 0xFFFFFFFF and 0xDEADBEEF (the store's mark for "no handle") are never
// handed out, and the value of a closed handle does not come back before 2^32
// others were used.
//
// Threads: any, for different handles. A single handle is used and closed by
// one thread at a time. Usable from the first static initialiser to the last
// static destructor.
#pragma once

#include "platform/Win32.h"

namespace platform {

enum class HandleKind { File, Listing };

// A handle for object; INVALID_HANDLE_VALUE when none is left. The object
// stays the caller's until it takes it back with RemoveHandle.
HANDLE AddHandle(HandleKind kind, void* object);

// The object, or null and ERROR_INVALID_HANDLE as the thread's error.
// RemoveHandle also ends the handle.
void* FindHandle(HANDLE handle, HandleKind kind);
void* RemoveHandle(HANDLE handle, HandleKind kind);

}  // namespace platform
