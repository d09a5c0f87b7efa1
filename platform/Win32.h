// The Win32 file, thread and exception calls that the store makes: the one door to the disk. What
// supplies them is chosen at link time: our POSIX layer (platform/posix/), the device's own
// libraries, a simulated disk.
//
// Semantics are those of the Win32 API reference; each comment says only what the store relies on.
// Paths are NUL-terminated UTF-16. Sizes, offsets and handles are 32 bits. The store passes 0 or
// null for parameters that have no name here. A failing call leaves its reason in GetLastError() of
// the calling thread. Nothing here throws.
#pragma once

#include <cstdint>

using HANDLE = std::uint32_t;
using DWORD = std::uint32_t;
using LONG = std::int32_t;
using BOOL = std::int32_t;
using WCHAR = char16_t;

constexpr HANDLE INVALID_HANDLE_VALUE = 0xFFFFFFFFU;
constexpr DWORD INVALID_SET_FILE_POINTER = 0xFFFFFFFFU;
constexpr DWORD INVALID_FILE_SIZE = 0xFFFFFFFFU;

constexpr DWORD GENERIC_READ = 0x80000000U;
constexpr DWORD GENERIC_WRITE = 0x40000000U;

constexpr DWORD CREATE_NEW = 1;
constexpr DWORD OPEN_EXISTING = 3;
constexpr DWORD OPEN_ALWAYS = 4;

constexpr DWORD FILE_ATTRIBUTE_READONLY = 0x01;
constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x10;
constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
constexpr DWORD FILE_FLAG_RANDOM_ACCESS = 0x10000000U;

constexpr DWORD FILE_BEGIN = 0;
constexpr DWORD FILE_CURRENT = 1;

constexpr DWORD MOVEFILE_REPLACE_EXISTING = 1;

constexpr DWORD MAX_PATH = 260;

constexpr DWORD ERROR_SUCCESS = 0;
constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
constexpr DWORD ERROR_PATH_NOT_FOUND = 3;
constexpr DWORD ERROR_TOO_MANY_OPEN_FILES = 4;
constexpr DWORD ERROR_ACCESS_DENIED = 5;
constexpr DWORD ERROR_INVALID_HANDLE = 6;
constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
constexpr DWORD ERROR_NOT_SAME_DEVICE = 17;
constexpr DWORD ERROR_NO_MORE_FILES = 18;
constexpr DWORD ERROR_WRITE_PROTECT = 19;
constexpr DWORD ERROR_GEN_FAILURE = 31;
constexpr DWORD ERROR_SHARING_VIOLATION = 32;
constexpr DWORD ERROR_HANDLE_DISK_FULL = 39;
constexpr DWORD ERROR_NOT_SUPPORTED = 50;
constexpr DWORD ERROR_FILE_EXISTS = 80;
constexpr DWORD ERROR_INVALID_PARAMETER = 87;
constexpr DWORD ERROR_DISK_FULL = 112;
constexpr DWORD ERROR_INVALID_NAME = 123;
constexpr DWORD ERROR_NEGATIVE_SEEK = 131;
constexpr DWORD ERROR_DIR_NOT_EMPTY = 145;
constexpr DWORD ERROR_BUSY = 170;
constexpr DWORD ERROR_ALREADY_EXISTS = 183;
constexpr DWORD ERROR_FILENAME_EXCED_RANGE = 206;
constexpr DWORD ERROR_FILE_TOO_LARGE = 223;
constexpr DWORD ERROR_IO_DEVICE = 1117;

// The structures are laid out as Win32 has them; the store reads the named fields.

// One entry of a directory listing; cFileName is cut to fit and terminated.
struct WIN32_FIND_DATAW {
  DWORD dwFileAttributes;
  DWORD unused[10];
  WCHAR cFileName[MAX_PATH];
  WCHAR unusedName[14];
};

// The volume's number and the file's index together tell one file from another.
struct BY_HANDLE_FILE_INFORMATION {
  DWORD unused[7];
  DWORD dwVolumeSerialNumber;
  DWORD unusedSize[3];
  DWORD nFileIndexHigh;
  DWORD nFileIndexLow;
};

struct SECURITY_ATTRIBUTES;

// Where a read begins.
struct OVERLAPPED {
  std::uintptr_t unused[2];
  DWORD Offset;
  DWORD OffsetHigh;
  HANDLE hEvent;
};

constexpr DWORD EXCEPTION_ACCESS_VIOLATION = 0xC0000005U;
constexpr int EXCEPTION_EXECUTE_HANDLER = 1;
constexpr int EXCEPTION_CONTINUE_SEARCH = 0;

struct EXCEPTION_RECORD {
  DWORD ExceptionCode;
  DWORD ExceptionFlags;
  EXCEPTION_RECORD* ExceptionRecord;
  void* ExceptionAddress;
  DWORD NumberParameters;
  std::uintptr_t ExceptionInformation[15];
};
struct CONTEXT;
struct _EXCEPTION_POINTERS {  // NOLINT(bugprone-reserved-identifier): the platform's name
  EXCEPTION_RECORD* ExceptionRecord;
  CONTEXT* ContextRecord;
};

extern "C" {

// Opens or creates a file with share mode 0: any second opener of the file, in this process or
// another, gets ERROR_SHARING_VIOLATION until the first has closed it. Only regular files are
// opened. With no access (0) whatever the name leads to is opened, even if another opener has it,
// to ask which file it is. Returns INVALID_HANDLE_VALUE on failure.
HANDLE CreateFileW(const WCHAR* path, DWORD desiredAccess, DWORD, SECURITY_ATTRIBUTES*,
                   DWORD creationDisposition, DWORD flagsAndAttributes, HANDLE);

// Read or write at the handle's position and move it by *transferred bytes, which is set on every
// return. A read past the end of the file succeeds with fewer bytes; a write transfers all or
// fails. A read that passes an OVERLAPPED begins at its Offset instead and leaves the position as
// it is: any number of threads may make such reads beside one thread that makes other calls.
BOOL ReadFile(HANDLE file, void* buffer, DWORD size, DWORD* transferred, OVERLAPPED* at);
BOOL WriteFile(HANDLE file, const void* buffer, DWORD size, DWORD* transferred, OVERLAPPED*);

// Moves the position by a signed distance, so that positions of 2^31 and up fail. Going past the
// end is allowed and changes nothing on disk. On success GetLastError() is 0.
DWORD SetFilePointer(HANDLE file, LONG distance, LONG*, DWORD moveMethod);

// The low 32 bits of the length; INVALID_FILE_SIZE on failure.
DWORD GetFileSize(HANDLE file, DWORD*);

// Makes the handle's position the file's length. Bytes that this adds are zeros.
BOOL SetEndOfFile(HANDLE file);

BOOL GetFileInformationByHandle(HANDLE file, BY_HANDLE_FILE_INFORMATION* information);

// Once this returns TRUE, everything written to the file, its length and its name survive a power
// cut. Once it has returned FALSE, data may have been dropped: every later flush of this handle
// fails as well, and an opener of the file after it was closed reads what the disk holds.
BOOL FlushFileBuffers(HANDLE file);

// Releases the handle, even where it reports a failure. Does not flush.
BOOL CloseHandle(HANDLE object);

BOOL DeleteFileW(const WCHAR* path);

// Renames; the target must not exist. The new name survives a power cut once the call has returned
// TRUE.
BOOL MoveFileW(const WCHAR* from, const WCHAR* to);

// MoveFileW that, with MOVEFILE_REPLACE_EXISTING, replaces the target in one step: at every moment,
// and after a power cut, the target's name leads to the whole old file or to the whole new one. A
// process that has both files open may do it: each handle goes on with the file that it was opened
// for.
BOOL MoveFileExW(const WCHAR* from, const WCHAR* to, DWORD flags);

// The path, made absolute with the current directory. Returns its length without the NUL; what the
// buffer must hold, NUL included, when that is more than capacity; 0 on failure. The file need not
// exist.
DWORD GetFullPathNameW(const WCHAR* path, DWORD capacity, WCHAR* buffer, WCHAR**);

BOOL CreateDirectoryW(const WCHAR* path, SECURITY_ATTRIBUTES*);
BOOL RemoveDirectoryW(const WCHAR* path);

// The store passes FILE_ATTRIBUTE_NORMAL, to delete what is read-only.
BOOL SetFileAttributesW(const WCHAR* path, DWORD attributes);

// Lists a directory: the pattern is the directory's path followed by "/*.*", which matches every
// entry, "." and ".." included, in any order. Returns INVALID_HANDLE_VALUE on failure; the end is
// ERROR_NO_MORE_FILES.
HANDLE FindFirstFileW(const WCHAR* pattern, WIN32_FIND_DATAW* data);
BOOL FindNextFileW(HANDLE find, WIN32_FIND_DATAW* data);
BOOL FindClose(HANDLE find);

DWORD GetLastError();
void Sleep(DWORD milliseconds);
DWORD GetCurrentThreadId();
// Right in a forked child as well.
DWORD GetCurrentProcessId();

// Hands the exception to the host's structured exception handling; control may come back.
void RaiseException(DWORD code, DWORD flags, DWORD argumentCount, const std::uintptr_t* arguments);
}
