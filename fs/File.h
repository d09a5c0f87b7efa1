// An open file of the operating system, exclusively held: unbuffered, all-or-nothing reads and
// writes at 32-bit positions. Every call is one platform call.
//
// Errors: Failure (std::runtime_error) whose text names the operation and carries the platform's
// error code. Nothing is retried here. An operation on a closed File reports a fatal misuse to the
// platform first.
// Owns its handle; the destructor closes it. No locks: one caller at a time, but for readAt,
// readSome and size, which any number of threads may call beside each other and beside one thread
// that reads and writes at the position. Positions and sizes are bytes; from 2^31 on, seek fails.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "platform/BlobStoreBase.h"
#include "platform/Failure.h"
#include "platform/Win32.h"

// What there was of the bytes that a reader asked for, and the platform's error where that is less.
struct BytesRead {
  std::span<const unsigned char> held;
  std::uint32_t asked = 0;
  std::uint32_t code = ERROR_SUCCESS;

  bool IsAll() const { return held.size() == asked; }
};

class BLOBRING_EXPORT File : public BlobStoreBase {
 public:
  static constexpr HANDLE kNoHandle = 0xDEADBEEFU;

  File();
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  // A close that fails is traced and the handle released without a flush.
  ~File() override;

  // Access, disposition and flags are those of CreateFileW. Throws what FileSystem::CreateFileW
  // throws. REQUIRES: the File is closed.
  void open(const std::string& filePath, unsigned desiredAccess, unsigned creationDisposition,
            unsigned flagsAndAttributes);

  // Moves to an absolute position, past the end if need be; returns it.
  unsigned seek(unsigned pos);
  unsigned tell() const;

  // Exactly n bytes at the position, or an exception; return n. After a failure the position is
  // undefined.
  unsigned read(char* buf, unsigned n) const;
  unsigned write(char* buf, unsigned n);

  // Reads at most n bytes from pos on, wherever the position is and stays. Throws if the file is
  // not open.
  BytesRead readSome(unsigned pos, unsigned char* buf, unsigned n) const;
  // Exactly n bytes, or an exception.
  void readAt(unsigned pos, unsigned char* buf, unsigned n) const;

  // What read() throws when only `got` of n bytes are there.
  static Failure ShortRead(unsigned n, unsigned got, DWORD code);

  // Makes the file `length` bytes long. Leaves the position there.
  void truncate(unsigned length);

  // Renames this open file in one step over the file at target, which this process may have open as
  // well. Throws as FileSystem::ReplaceFileW does.
  void replace(const std::string& target);

  // True if the path currently names this open file.
  bool isAt(const std::string& otherPath) const;

  // Makes what was written survive a power cut. True without a platform call for a file that was
  // opened for reading; false when it failed or is closed.
  bool flush();

  // Length in bytes, 0xFFFFFFFF when the platform fails. Never throws.
  unsigned size() const;

  // Flushes a file opened for writing, releases the handle. If either fails it throws and the file
  // stays open. Does nothing when closed.
  void close();

  // Closes, then deletes the file at the path of the last open.
  void erase();

  const std::string& Path() const { return path; }
  bool IsOpen() const { return isOpen; }

 private:
  void GuardHandle() const;
  void RequireOpen(const char* operation) const;

  HANDLE handle;
  bool isOpen;
  std::string path;  // after a close, the last one
  unsigned access;
};

// A File for reading one that exists.
class BLOBRING_EXPORT FileReader : public File {
 public:
  FileReader();
  ~FileReader() override;
  using File::open;
  virtual void open(const std::string& filePath);
};
