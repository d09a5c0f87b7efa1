// The platform's file calls (platform/Win32.h) on a simulated disk, and what a
// test asks of them: faults, a killed process, a power cut.
//
// One process, one thread; time does not pass. Like platform/posix: share mode
// 0 excludes a second opener; the first flush of a handle that may have created
// its file also syncs the directory; a rename syncs it; a deletion becomes
// durable with the directory's next sync; after a failed flush every later
// flush of that handle fails, and the next opener reads what the disk holds.
#pragma once

#include <array>
#include <cstdint>
#include <numeric>
#include <string>
#include <vector>

#include "platform/Win32.h"
#include "tests/support/SimDisk.h"

namespace sim {

enum class Call : unsigned {
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
constexpr std::size_t kCallKinds = 12;

enum class Fault : unsigned {
  None,
  Error,     // nothing done. A flush: the updates are gone, readers see the medium's contents
  Partial,   // a read or write stopped half way. A flush: the updates are gone once the handle is
             // closed
  DiskFull,  // a write that grows its file stopped half way, a creation refused
  Busy,      // an open or a move refused by a sharing violation
  DoneButFailed,  // done, yet reported as failed
};

// Whether a call can fail this way (the fault is then not the same as another).
bool CanFail(Call call, Fault fault);

class SimFiles {
 public:
  // A fresh machine: an empty disk, nothing planned, nothing counted.
  void Reset();

  Disk disk;
  std::string currentDirectory = "/";
  DWORD processId = 1;  // another one plays a forked child

  // Fails the n-th call from now, 1 being the next, or the n-th of one kind;
  // with fromThenOn every later one too. 0: none.
  void FailCall(std::uint64_t n, Fault fault, bool fromThenOn = false) {
    plan_ = {n, fault, fromThenOn, false, {}};
  }
  void FailCallOf(Call kind, std::uint64_t n, Fault fault, bool fromThenOn = false) {
    plan_ = {n, fault, fromThenOn, true, kind};
  }
  // Fails the next write to the start of a file.
  void FailNextHeader() { failsHeader_ = true; }
  void Heal() { plan_ = {}, firedOf_ = {}, fired_ = 0, failsHeader_ = false; }
  std::uint64_t fired() const { return fired_; }
  // Of the calls since StartOp.
  bool FailedDuringOp(Call call) const { return firedOf_[static_cast<std::size_t>(call)] > 0; }
  void StartOp() { firedOf_ = {}; }
  // The n-th flush from now reports success and makes nothing durable.
  void LieAboutFlush(std::uint64_t n) { lieCountdown_ = n; }

  // Called before every call that changes the disk or makes a change durable.
  void (*watcher)(void* context, Call call) = nullptr;
  void* watcherContext = nullptr;
  std::vector<Call>* log = nullptr;  // gets the kind of every call

  // The process is killed: what it wrote stays visible and unflushed. Every
  // call fails until Restart, so that its objects can be cleared away.
  void Kill();
  // The power fails, and what was not flushed is lost.
  void CutPower();
  void Restart() { dead_ = false; }
  bool dead() const { return dead_; }

  std::uint64_t calls(Call call) const { return counts_[static_cast<std::size_t>(call)]; }
  std::uint64_t allCalls() const {
    return std::accumulate(counts_.begin(), counts_.end(), std::uint64_t{0});
  }
  std::uint64_t sleptMs = 0;
  unsigned openHandles() const;

  // The calls; see platform/Win32.h.
  HANDLE Create(const WCHAR* path, DWORD access, DWORD disposition);
  BOOL Read(HANDLE file, void* buffer, DWORD size, DWORD* transferred);
  BOOL Write(HANDLE file, const void* buffer, DWORD size, DWORD* transferred);
  DWORD Seek(HANDLE file, LONG distance, DWORD method);
  DWORD Size(HANDLE file);
  BOOL SetEnd(HANDLE file);
  BOOL Information(HANDLE file, BY_HANDLE_FILE_INFORMATION* information);
  DWORD FullPath(const WCHAR* path, DWORD capacity, WCHAR* buffer);
  BOOL Flush(HANDLE file);
  BOOL Close(HANDLE file);
  BOOL Delete(const WCHAR* path);
  BOOL Move(const WCHAR* from, const WCHAR* to, bool replace);
  BOOL Fail(DWORD error) { return lastError = error, 0; }
  BOOL Done() { return lastError = ERROR_SUCCESS, 1; }
  DWORD lastError = 0;

 private:
  struct Handle {
    bool open = false;
    int inode = kNoInode;
    std::string directory;
    DWORD access = 0;
    std::uint64_t position = 0;
    bool syncsDirectory = false;  // its first flush syncs the directory as well
    bool flushFailed = false;
  };
  struct Plan {
    std::uint64_t countdown = 0;
    Fault fault = Fault::None;
    bool fromThenOn = false, oneKind = false;
    Call kind{};
  };

  Handle* HandleAt(HANDLE value);
  bool IsHeld(int inode) const;
  Fault Begin(Call call);  // counts and decides; dead processes fail
  void NotApplied(Call call);
  void Watch(Call call) const {
    if (watcher != nullptr) watcher(watcherContext, call);
  }

  std::array<Handle, 64> handles_;
  std::array<std::uint64_t, kCallKinds> counts_{}, firedOf_{};
  std::uint64_t fired_ = 0, lieCountdown_ = 0;
  Plan plan_;
  bool dead_ = false, failsHeader_ = false;
};

// The machine that the program runs on.
SimFiles& Files();

}  // namespace sim
