// Which of the platform's file calls fail, and how.
#pragma once

#include <array>
#include <cstdint>

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
  MoveFile,   // MoveFileExW too
  Directory,  // making, removing and listing directories, and attributes
};
constexpr std::size_t kCallKinds = 10;

enum class Fault : unsigned {
  None,
  Error,     // nothing done. A flush: the updates are gone, readers see the medium's contents
  Partial,   // a read or write stopped half way by an I/O error. A flush: the updates are gone, readers see them until
             // the handle is closed
  DiskFull,  // a write that grows its file stopped half way, a creation refused; other calls succeed
  Busy,      // an open or a move refused by a sharing violation
  DoneButFailed,  // done, yet reported as failed: a write, flush, rename, creation or deletion
};
constexpr unsigned kFaultKinds = 6;

// Whether a call can fail this way (the fault is then not the same as another).
bool CanFail(Call call, Fault fault);

class FaultPlan {
 public:
  // Fails the n-th file call from now, 1 being the next one; with fromThenOn
  // every later one too. A call that cannot fail this way succeeds.
  void FailCall(std::uint64_t n, Fault fault, bool fromThenOn = false);
  // As FailCall, counting and failing calls of one kind alone.
  void FailCallOf(Call kind, std::uint64_t n, Fault fault, bool fromThenOn = false);
  void Clear();

  bool Fired() const { return fired_ > 0; }
  std::uint64_t fired() const { return fired_; }
  Call firstFailed() const { return firstFailed_; }
  bool FailedDuringOp(Call call) const { return firedOf_[static_cast<std::size_t>(call)] > 0; }
  void StartOp() { firedOf_ = {}; }

  // What happens to this call; counts it.
  Fault Decide(Call call);
  // The same for a call that fails only by this fault's condition: undoes the
  // count of a fault that turned out to change nothing.
  void NotApplied(Call call);

 private:
  std::uint64_t countdown_ = 0;  // 0: none planned
  Fault fault_ = Fault::None;
  bool fromThenOn_ = false;
  bool oneKind_ = false;
  Call kind_ = Call::CreateFile;
  std::uint64_t fired_ = 0;
  Call firstFailed_ = Call::CreateFile;
  std::array<std::uint32_t, kCallKinds> firedOf_{};
};

}  // namespace sim
