// Owns the search handle of a directory listing.
#pragma once

#include "platform/Export.h"
#include "platform/Win32.h"

class BLOBRING_EXPORT ScopedFindHandle {
 public:
  explicit ScopedFindHandle(HANDLE search);
  ScopedFindHandle(const ScopedFindHandle&) = delete;
  ScopedFindHandle& operator=(const ScopedFindHandle&) = delete;
  ~ScopedFindHandle();

  // False for 0 as for INVALID_HANDLE_VALUE.
  bool IsValid() const { return handle != 0 && handle != INVALID_HANDLE_VALUE; }
  HANDLE Get() const { return handle; }

  // Result of FindClose; TRUE when there is nothing to close.
  BOOL Close();

 private:
  HANDLE handle;
};
