#include "tests/support/SimFaults.h"

namespace sim {

bool CanFail(Call call, Fault fault) {
  switch (fault) {
    case Fault::None:
      return false;
    case Fault::Error:
      return true;
    case Fault::Partial:
      return call == Call::ReadFile || call == Call::WriteFile || call == Call::FlushFileBuffers;
    case Fault::DiskFull:
      return call == Call::WriteFile || call == Call::CreateFile;
    case Fault::Busy:
      return call == Call::CreateFile || call == Call::MoveFile;
    case Fault::DoneButFailed:
      return call == Call::WriteFile || call == Call::FlushFileBuffers || call == Call::MoveFile ||
             call == Call::CreateFile || call == Call::DeleteFile;
  }
  return false;
}

void FaultPlan::FailCall(std::uint64_t n, Fault fault, bool fromThenOn) {
  Clear();
  countdown_ = n;
  fault_ = fault;
  fromThenOn_ = fromThenOn;
}

void FaultPlan::FailCallOf(Call kind, std::uint64_t n, Fault fault, bool fromThenOn) {
  FailCall(n, fault, fromThenOn);
  oneKind_ = true;
  kind_ = kind;
}

void FaultPlan::Clear() {
  *this = FaultPlan();
}

Fault FaultPlan::Decide(Call call) {
  if (countdown_ == 0 || (oneKind_ && call != kind_)) return Fault::None;
  if (countdown_ > 1) {
    --countdown_;
    return Fault::None;
  }
  if (!fromThenOn_) countdown_ = 0;
  if (!CanFail(call, fault_)) return Fault::None;
  if (fired_++ == 0) firstFailed_ = call;
  ++firedOf_[static_cast<std::size_t>(call)];
  return fault_;
}

void FaultPlan::NotApplied(Call call) {
  --fired_;
  --firedOf_[static_cast<std::size_t>(call)];
}

}  // namespace sim
