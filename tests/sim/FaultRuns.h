// Runs a workload with one call of the platform failing, or everything from
// one call on; with one allocation refused, or everything from one on; with
// one release refused. For each call, each way it can fail, each allocation
// and each release of the run.
//
// While it runs: a call that fails says so; one that says it succeeded has.
// A caller who gets a failure does one of three things, and each is tried:
// asks again, goes on with the next transaction, or opens the store anew.
// Right after the failure, by a power cut and by a killed process, and at the
// end: the store loads, holds what was acknowledged (or what was in doubt),
// every blob reads back, the check is clean, a new commit works and survives.
// In the end nothing is open and no memory is taken.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "tests/sim/PowerCut.h"
#include "tests/sim/Workload.h"
#include "tests/support/SimFaults.h"

namespace explore {

enum class Policy { AskAgain, GoOn, Reopen };

struct Plan {
  enum class Kind { Call, Alloc, Free } kind = Kind::Call;
  std::uint64_t n = 0;  // the n-th from the start of the run
  sim::Fault fault = sim::Fault::Error;
  bool fromThenOn = false;
  Policy policy = Policy::AskAgain;
  bool keep = true;  // BLOBRING_DAMAGE_KEEP, else a failed load may erase
};

// One run of a workload on a failing machine.
class FailingRun {
 public:
  FailingRun(const Workload& workload, const Plan& plan);
  // Throws a Violation.
  void Run();
  bool failed() const { return failed_ || FailedNow(); }  // something was made to fail
  // What a run in which nothing failed has asked for.
  std::uint64_t allocations() const { return allocations_; }
  std::uint64_t releases() const { return releases_; }

 private:
  bool FailedNow() const;
  void Arm(std::uint64_t n);
  void Mend();
  bool OpenOnce();
  bool OpenStore();
  bool Do(const Step& step);
  bool DoStart();
  void DoChange(const Step& step);
  bool DoEnd();
  bool DoRepack();
  bool DoRead();
  bool Reopen();
  void Committed();
  void Excuse(const char* call) const;
  void ExpectSaidSo(const char* call) const;
  void ExpectShown();
  bool Allows(Mask contents) const;
  std::string Difference(Mask contents) const;
  void CheckMoment();
  void CheckDisk(const sim::Image& image, const char* when);
  void CheckDisk(const sim::Disk& disk, const char* when);
  void Finish();

  const Workload& workload_;
  Plan plan_;
  Session session_;
  long long transactionId_ = 0;
  std::vector<Mask> allowed_{0};  // what the disk may hold
  Mask shown_ = 0;                // what this process must see
  Mask working_ = 0;
  bool changed_ = false;
  bool failed_ = false;  // before the plan was armed anew
  bool erased_ = false;  // a load failed, and may have erased the store
  static constexpr int kCheckedSteps = 3;
  int checked_ = 0;  // steps after which the disk was checked, from the failure on
  std::size_t memoryBefore_ = 0;
  std::uint64_t refusedFrees_ = 0;
  std::uint64_t allocations_ = 0, releases_ = 0;
};

class FaultRuns {
 public:
  void Explore(const Workload& workload);
  bool Replay(const std::string& token);

  std::uint64_t runs() const { return runs_; }
  std::uint64_t faults() const { return faults_; }
  std::uint64_t allocations() const { return allocations_; }
  std::uint64_t releases() const { return releases_; }
  const std::vector<Finding>& findings() const { return findings_; }
  // Where the runs are, for a report after a crash.
  std::string CurrentToken() const { return Token(); }

 private:
  void Try(const Workload& workload, const Plan& plan, std::uint64_t& reached);
  void Run(FailingRun& run);
  void ExploreCalls(const Workload& workload, const std::vector<sim::Call>& calls);
  void ExploreMemory(const Workload& workload, std::uint64_t allocations, std::uint64_t releases);
  std::string Token() const;

  std::string workloadName_;
  Plan plan_;
  std::uint64_t runs_ = 0, faults_ = 0, allocations_ = 0, releases_ = 0;
  std::vector<Finding> findings_;
  std::set<std::string> texts_;  // one finding for each text, without its details
};

}  // namespace explore
