// The platform's file calls (platform/Win32.h) on a simulated disk, and what a test asks of them:
// faults, a killed process, a power cut.
//
// One process, one thread; time does not pass. Like platform/posix: share mode 0 excludes a second
// opener; the first flush of a handle that may have created its file also syncs the directory; a
// rename syncs it; a deletion becomes durable with the directory's next sync; after a failed flush
// every later flush of that handle fails, and the next opener reads what the disk holds.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/Win32.h"
#include "tests/support/SimDisk.h"

namespace sim {

enum class Call {
  CreateFile,
  ReadFile,
  WriteFile,
  SetFilePointer,
  GetFileSize,
  FlushFileBuffers,
  CloseHandle,
  DeleteFile,
  MoveFile,
  SetEndOfFile,
  GetFileInformation,
  GetFullPathName
};

enum class Fault {
  None,
  Error,          // nothing done. A flush: updates gone, readers see the medium's contents
  Partial,        // a read or write stopped half way. A flush: updates gone at the next open
  DiskFull,       // a write that grows its file stopped half way, a creation refused
  Busy,           // an open or a move refused by a sharing violation
  DoneButFailed,  // done, yet reported as failed
};

// Whether a call can fail this way (the fault is then not the same as another).
bool CanFail(Call call, Fault fault);

class SimFiles {
 public:
  // A fresh machine: an empty disk, nothing planned, nothing logged. The watcher stays.
  void Reset();

  Disk disk;
  std::string currentDirectory = "";

  // Fails the n-th call from now, of one kind or of any, 1 being the next; with fromThenOn every
  // later one too. 0: none.
  void FailCallOf(std::optional<Call> kind, std::uint64_t n, Fault fault, bool fromThenOn = false) {
    plan_ = {n, fault, fromThenOn, kind};
  }
  // Fails the next write to the start of a file.
  void FailNextHeader() { failsHeader_ = true; }
  // Plans nothing, and forgets what has failed.
  void Heal() { plan_ = {}, firedOf_.clear(), fired_ = 0, failsHeader_ = false; }
  std::uint64_t fired() const { return fired_; }
  // Of the calls since StartOp.
  bool FailedDuringOp(Call call) const { return firedOf_.count(call) > 0; }
  void StartOp() { firedOf_.clear(); }

  // Called before every call that changes the disk or makes a change durable.
  std::function<void()> watcher;
  std::vector<Call> log;  // every call

  // The process is killed: what it wrote stays visible and unflushed. Every call fails until
  // Restart, so that its objects can be cleared away.
  void Kill();
  // The power fails, and what was not flushed is lost.
  void CutPower();
  void Restart() { dead_ = false; }

  auto calls(Call call) const { return static_cast<std::size_t>(std::ranges::count(log, call)); }
  std::uint64_t sleptMs = 0;
  unsigned openHandles() const;

  // ---- For the platform's calls -----------------------------------------------

  struct Handle {
    bool open = false;
    int inode = kNoInode;
    std::string directory;
    DWORD access = 0;
    std::size_t position = 0;
    bool syncsDirectory = false;  // its first flush syncs the directory as well
    bool flushFailed = false;
  };
  // Counts the call and decides how it fails. A full disk stops one that grows.
  Fault Begin(Call call, bool grows = true);
  // Begins a call on a handle, in lastFault how it fails. Null, with the reason in lastError, if it
  // ends there.
  Handle* Begin(Call call, HANDLE file, DWORD access, std::size_t size = 0);
  bool IsHeld(int inode) const;
  HANDLE Open(const Handle& handle);
  void Watch() const {
    if (watcher) watcher();
  }
  // As lastFault says.
  void Flush(Handle& handle);
  // Whether this write is the one that FailNextHeader is about.
  bool FailsHeader(const Handle& handle);
  BOOL Fail(DWORD error) { return lastError = error, 0; }
  // What a call returns that has done its work.
  BOOL Done(bool failed = false) { return Fail(failed ? ERROR_IO_DEVICE : ERROR_SUCCESS), !failed; }
  DWORD lastError = 0;
  Fault lastFault = Fault::None;

 private:
  struct Plan {
    std::uint64_t countdown = 0;
    Fault fault = Fault::None;
    bool fromThenOn = false;
    std::optional<Call> kind;
  };

  std::array<Handle, 64> handles_;
  std::set<Call> firedOf_;
  std::uint64_t fired_ = 0;
  Plan plan_;
  bool dead_ = false, failsHeader_ = false;
};

// The machine that the program runs on.
SimFiles& Files();

}  // namespace sim
