// The stateless calls on paths, with their errors put into words. Paths come narrow, as the store
// keeps them, or as the platform's UTF-16; conversion is unit by unit, without UTF-8: byte 0xC3
// becomes unit 0xFFC3 and comes back.
//
// The one failure that is waited for is a sharing violation, on open and on move: at most 25
// attempts, 20 ms apart. All messages go to the file-system trace. No locks.
#pragma once

#include <string>
#include <vector>

#include "platform/BlobAllocator.h"
#include "platform/Win32.h"

class File;
class Hash;

class BLOBRING_EXPORT FileSystem {
 public:
  template <class String>
  using Paths =
      std::vector<String, BlobAllocator<String, TesselMemoryManager::kStorePool, kTagPathList>>;
  using WidePaths = Paths<std::u16string>;
  using NarrowPaths = Paths<std::string>;

  static std::u16string ConvertString(const std::string& s);
  static std::string ConvertString(const std::u16string& s);

  // The path, made absolute with the current directory, so that a later change of it leads no file
  // elsewhere. Throws std::runtime_error.
  static std::string AbsolutePath(const std::string& path);

  // False if there is no such file. True if there is one, even if another opener has it, and if the
  // platform cannot tell.
  static bool Exists(const std::string& path);

  // Opens a file that no other opener holds. Throws std::runtime_error with the path and the
  // platform's code.
  static HANDLE CreateFileW(std::string path, unsigned desiredAccess, unsigned creationDisposition,
                            unsigned flagsAndAttributes);

  // Renames; true, or throws std::runtime_error with both paths and the code. The target must not
  // exist.
  static bool MoveFileW(std::u16string from, std::u16string to);
  static bool MoveFileW(std::string from, std::string to);

  // The same, in one step over a file that has the target's name. This process may have both open.
  // After a failure either file may have the name after a power cut.
  static bool ReplaceFileW(const std::string& from, const std::string& to);

  // Deletes a file; false, after a warning, when that fails.
  static bool Remove(std::u16string path);
  static bool Remove(std::string path);

  // Deletes a file, or a link but not what it leads to, if there is one. Throws std::runtime_error.
  static void RemoveLeftover(const std::string& path);

  // The platform's result; the narrow form drops it.
  static BOOL CreateDirectoryW(const std::u16string& path);
  static void CreateDirectoryW(const std::string& path);

  // Deletes the files of a directory and, unless it keeps subdirectories, the directory; with
  // recursive, those as well. Names that begin with a dot are left alone. Returns 0, also for a
  // missing directory, or the platform's code of the step that failed; the narrow form drops it.
  static unsigned DeleteDirectory(const std::u16string& dir, bool recursive);
  static void DeleteDirectory(const std::string& dir, bool recursive);

  // Appends the path of every entry below dir whose name contains pattern, what a subdirectory
  // holds before the subdirectory. Failures leave a warning and what was found.
  static void ReadDirectory(const std::u16string& dir, WidePaths& out,
                            const std::u16string& pattern);
  static void ReadDirectory(const std::string& dir, NarrowPaths& out, const std::string& pattern);

  // MD5 of the bytes from the file's position to its end, which is where the position is left: raw,
  // or as the text of MD5::hex_digest, replacing out. `limit` is the read size (1 to
  // 511; otherwise 512), not a bound on the bytes digested. They throw what File throws.
  static void GetFileChksum(File& f, Hash& out, unsigned limit);
  static void GetFileChksum(File& f, std::string& out);
  static void GetFileChksum(std::string path, std::string& out);

  // Whether that text equals expected, letter case included.
  static bool ValidateFile(File& f, const std::string& expected);
  static bool ValidateFile(std::string path, const std::string& expected);
};

// Owns the search handle of a directory listing.
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
