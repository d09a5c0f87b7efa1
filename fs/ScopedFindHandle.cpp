#include "fs/ScopedFindHandle.h"

ScopedFindHandle::ScopedFindHandle(HANDLE search) : handle(search) {}

ScopedFindHandle::~ScopedFindHandle() {
  Close();
}

BOOL ScopedFindHandle::Close() {
  if (!IsValid()) return 1;
  const BOOL closed = FindClose(handle);
  handle = INVALID_HANDLE_VALUE;
  return closed;
}
