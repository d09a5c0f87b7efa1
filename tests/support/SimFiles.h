// The platform's file calls (platform/Win32.h) on a simulated disk, and what
// a test asks of them: faults, counts, a killed process, a power cut.
//
// One process, one thread. Time does not pass: Sleep only adds up.
// Semantics are those of our stand-in for the platform: share mode 0 excludes
// every second opener; a first flush of a handle that may have created its
// file also syncs the directory; a rename syncs the directory; a deletion
// waits for the directory's next sync; after a failed flush every later flush
// of that handle fails, and who opens the file after it was closed reads what
// the disk holds.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/Win32.h"
#include "tests/support/SimDisk.h"
#include "tests/support/SimFaults.h"

namespace sim {

class SimFiles {
 public:
  // A fresh machine: an empty disk, nothing planned, nothing counted.
  void Reset();

  Disk disk;
  FaultPlan faults;

  // Called before every file call that changes the disk or makes a change
  // durable, while the disk is still as it was. Null: nobody watches.
  void (*watcher)(void* context, Call call) = nullptr;
  void* watcherContext = nullptr;

  // Where set, the kind of every call is appended to it.
  std::vector<Call>* log = nullptr;

  // ---- Broken disks, which stand for a broken store -----------------------
  // The n-th flush from now reports success and makes nothing durable.
  void LieAboutFlush(std::uint64_t n) { lieCountdown_ = n; }
  // In files whose path ends in `suffix`, a rewrite of the first 24 bytes
  // reaches the medium by itself at once, and a flush that no such rewrite
  // precedes makes nothing durable: a store that writes its header first.
  void PutHeaderFirst(std::string suffix);
  // No flush of such files makes anything durable.
  void NeverFlush(std::string suffix) { neverFlushSuffix_ = std::move(suffix); }
  // Zeros that are written to such files get lost.
  void LoseZeros(std::string suffix) { loseZerosSuffix_ = std::move(suffix); }
  // A rename waits for the next sync of its directory.
  void LeaveRenamesPending() { renamesPending_ = true; }
  // Ends them all. Misbehaved: one of them has had an effect since.
  void BehaveAgain();
  bool Misbehaved() const { return misbehaved_; }

  // ---- Ends of a process ---------------------------------------------------
  // The process is killed: its handles are gone, what it wrote stays visible
  // and unflushed. Every call fails from now on, so that the objects of the
  // dead process can be cleared away, until Restart.
  void Kill();
  // The power fails, and what was not flushed is lost. Until Restart as above.
  void CutPower();
  void Restart() { dead_ = false; }
  bool dead() const { return dead_; }

  // ---- What happened -------------------------------------------------------
  std::uint64_t calls(Call call) const { return counts_[static_cast<std::size_t>(call)]; }
  std::uint64_t allCalls() const;
  std::uint64_t sleptMs() const { return sleptMs_; }
  unsigned openHandles() const;

  // ---- The calls; see platform/Win32.h -------------------------------------
  HANDLE Create(const WCHAR* path, DWORD access, DWORD disposition);
  BOOL Read(HANDLE file, void* buffer, DWORD size, DWORD* transferred);
  BOOL Write(HANDLE file, const void* buffer, DWORD size, DWORD* transferred);
  DWORD Seek(HANDLE file, LONG distance, LONG* distanceHigh, DWORD method);
  DWORD Size(HANDLE file, DWORD* sizeHigh);
  BOOL Flush(HANDLE file);
  BOOL Close(HANDLE file);
  BOOL Delete(const WCHAR* path);
  BOOL Move(const WCHAR* from, const WCHAR* to, bool replace);
  BOOL MakeDirectory(const WCHAR* path);
  BOOL RemoveDirectory(const WCHAR* path);
  BOOL SetAttributes(const WCHAR* path);
  HANDLE FindFirst(const WCHAR* pattern, WIN32_FIND_DATAW* data);
  BOOL FindNext(HANDLE find, WIN32_FIND_DATAW* data);
  BOOL CloseFind(HANDLE find);
  DWORD lastError() const { return lastError_; }
  void Sleep(DWORD milliseconds) { sleptMs_ += milliseconds; }

 private:
  struct Handle {
    bool open = false;
    std::uint32_t generation = 0;
    int inode = kNoInode;
    std::string path;
    DWORD access = 0;
    std::uint64_t position = 0;
    bool syncsDirectory = false;  // its first flush syncs the directory as well
    bool flushFailed = false;
    bool headerWritten = false;  // since the last flush
    bool find = false;
    std::vector<std::string> entries;  // of a directory, still to be listed
  };
  static constexpr std::size_t kMaxHandles = 64;

  Handle* HandleAt(HANDLE value);
  HANDLE NewHandle();
  BOOL Fail(DWORD error);
  Fault Begin(Call call);  // counts and decides; dead processes fail
  void Watch(Call call) {
    if (watcher != nullptr) watcher(watcherContext, call);
  }
  bool IsOpen(int inode) const;
  const std::string& Narrow(const WCHAR* path, std::string& out) const;
  void FinishFlush(Handle& handle);
  bool Lies(const Handle& handle);
  bool IsEarlyHeader(const Handle& handle, DWORD size) const;
  bool IsLost(const Handle& handle, const void* buffer, DWORD size) const;
  void ReleaseHandles();
  BOOL FillFindData(Handle& handle, WIN32_FIND_DATAW* data);

  std::array<Handle, kMaxHandles> handles_;
  std::array<std::uint64_t, kCallKinds> counts_{};
  std::uint64_t sleptMs_ = 0;
  DWORD lastError_ = 0;
  bool dead_ = false;
  std::uint64_t lieCountdown_ = 0;
  bool headerFirst_ = false;
  bool renamesPending_ = false;
  bool misbehaved_ = false;
  std::string headerFirstSuffix_;
  std::string neverFlushSuffix_;
  std::string loseZerosSuffix_;
  std::string from_, to_;  // paths of the call at work
};

// The machine that the program runs on.
SimFiles& Files();

}  // namespace sim
