// The door itself: platform/Win32.h on the simulated machine.
#include "platform/Win32.h"
#include "tests/support/SimDiagnostics.h"
#include "tests/support/SimFiles.h"

using sim::Files;

extern "C" {

HANDLE CreateFileW(const WCHAR* path, DWORD desiredAccess, DWORD /*shareMode*/, SECURITY_ATTRIBUTES* /*security*/,
                   DWORD creationDisposition, DWORD /*flagsAndAttributes*/, HANDLE /*templateFile*/) {
  return Files().Create(path, desiredAccess, creationDisposition);
}

BOOL ReadFile(HANDLE file, void* buffer, DWORD size, DWORD* transferred, OVERLAPPED* /*overlapped*/) {
  return Files().Read(file, buffer, size, transferred);
}

BOOL WriteFile(HANDLE file, const void* buffer, DWORD size, DWORD* transferred, OVERLAPPED* /*overlapped*/) {
  return Files().Write(file, buffer, size, transferred);
}

DWORD SetFilePointer(HANDLE file, LONG distance, LONG* distanceHigh, DWORD moveMethod) {
  return Files().Seek(file, distance, distanceHigh, moveMethod);
}

DWORD GetFileSize(HANDLE file, DWORD* sizeHigh) {
  return Files().Size(file, sizeHigh);
}
BOOL FlushFileBuffers(HANDLE file) {
  return Files().Flush(file);
}
BOOL CloseHandle(HANDLE object) {
  return Files().Close(object);
}
BOOL DeleteFileW(const WCHAR* path) {
  return Files().Delete(path);
}
BOOL MoveFileW(const WCHAR* from, const WCHAR* to) {
  return Files().Move(from, to, false);
}

BOOL MoveFileExW(const WCHAR* from, const WCHAR* to, DWORD flags) {
  return Files().Move(from, to, (flags & MOVEFILE_REPLACE_EXISTING) != 0);
}

BOOL CreateDirectoryW(const WCHAR* path, SECURITY_ATTRIBUTES* /*security*/) {
  return Files().MakeDirectory(path);
}
BOOL RemoveDirectoryW(const WCHAR* path) {
  return Files().RemoveDirectory(path);
}
BOOL SetFileAttributesW(const WCHAR* path, DWORD /*attributes*/) {
  return Files().SetAttributes(path);
}
HANDLE FindFirstFileW(const WCHAR* pattern, WIN32_FIND_DATAW* data) {
  return Files().FindFirst(pattern, data);
}
BOOL FindNextFileW(HANDLE find, WIN32_FIND_DATAW* data) {
  return Files().FindNext(find, data);
}
BOOL FindClose(HANDLE find) {
  return Files().CloseFind(find);
}

DWORD GetLastError() {
  return Files().lastError();
}
void Sleep(DWORD milliseconds) {
  Files().Sleep(milliseconds);
}
DWORD GetCurrentThreadId() {
  return 1;
}

void RaiseException(DWORD code, DWORD /*flags*/, DWORD /*argumentCount*/, const std::uintptr_t* /*arguments*/) {
  sim::Diagnostics().Raised(code);
}
}
