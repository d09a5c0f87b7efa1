#include "tests/sim/FaultRuns.h"

#include <cstdlib>
#include <sstream>

#include "tests/support/SimMemory.h"

namespace explore {

using sim::Call;
using sim::Fault;

namespace {

constexpr const char* kKinds[] = {"call", "alloc", "free"};
constexpr const char* kFaults[] = {"none", "error", "partial", "full", "busy", "done"};
constexpr const char* kPolicies[] = {"again", "on", "reopen"};

template <std::size_t N>
int IndexOf(const char* const (&names)[N], const std::string& name) {
  for (std::size_t i = 0; i < N; ++i)
    if (name == names[i]) return static_cast<int>(i);
  return -1;
}

}  // namespace

std::string FaultRuns::Token() const {
  return "fault/" + workloadName_ + "/" + kKinds[static_cast<int>(plan_.kind)] + "/" + std::to_string(plan_.n) + "/" +
         kFaults[static_cast<int>(plan_.fault)] + "/" + (plan_.fromThenOn ? "lasting" : "once") + "/" +
         kPolicies[static_cast<int>(plan_.policy)] + "/" + (plan_.keep ? "keep" : "erase");
}

void FaultRuns::Run(FailingRun& run) {
  ++runs_;
  try {
    run.Run();
  } catch (const Violation& violation) {
    sim::Files().Kill();
    sim::Files().Restart();
    if (texts_.insert(violation.text.substr(0, violation.text.find('{'))).second)
      findings_.push_back({Token(), violation.text});
  }
}

void FaultRuns::Try(const Workload& workload, const Plan& plan, std::uint64_t& reached) {
  plan_ = plan;
  FailingRun run(workload, plan);
  Run(run);
  if (run.failed()) ++reached;
}

void FaultRuns::ExploreCalls(const Workload& workload, const std::vector<Call>& calls) {
  for (std::uint64_t n = 1; n <= calls.size(); ++n) {
    for (const Fault fault : {Fault::Error, Fault::Partial, Fault::DiskFull, Fault::Busy, Fault::DoneButFailed}) {
      if (!sim::CanFail(calls[static_cast<std::size_t>(n - 1)], fault)) continue;
      for (const Policy policy : {Policy::AskAgain, Policy::GoOn, Policy::Reopen})
        Try(workload, {Plan::Kind::Call, n, fault, false, policy, true}, faults_);
      Try(workload, {Plan::Kind::Call, n, fault, false, Policy::AskAgain, false}, faults_);
      if (fault == Fault::Error || fault == Fault::DiskFull)
        for (const bool keep : {true, false})
          Try(workload, {Plan::Kind::Call, n, fault, true, Policy::GoOn, keep}, faults_);
    }
  }
}

void FaultRuns::ExploreMemory(const Workload& workload, std::uint64_t allocations, std::uint64_t releases) {
  for (std::uint64_t n = 1; n <= allocations; ++n) {
    for (const Policy policy : {Policy::AskAgain, Policy::GoOn, Policy::Reopen})
      Try(workload, {Plan::Kind::Alloc, n, Fault::Error, false, policy, true}, allocations_);
    Try(workload, {Plan::Kind::Alloc, n, Fault::Error, false, Policy::AskAgain, false}, allocations_);
    Try(workload, {Plan::Kind::Alloc, n, Fault::Error, true, Policy::GoOn, true}, allocations_);
  }
  for (std::uint64_t n = 1; n <= releases; ++n) {
    Try(workload, {Plan::Kind::Free, n, Fault::Error, false, Policy::AskAgain, true}, releases_);
    Try(workload, {Plan::Kind::Free, n, Fault::Error, true, Policy::GoOn, true}, releases_);
  }
}

void FaultRuns::Explore(const Workload& workload) {
  workloadName_ = workload.name;
  // A run in which nothing fails says what can.
  std::vector<Call> calls;
  plan_ = {Plan::Kind::Call, ~std::uint64_t{0}, Fault::Error, false, Policy::AskAgain, true};
  FailingRun healthy(workload, plan_);
  sim::Files().log = &calls;
  Run(healthy);
  sim::Files().log = nullptr;
  ExploreCalls(workload, calls);
  ExploreMemory(workload, healthy.allocations(), healthy.releases());
}

bool FaultRuns::Replay(const std::string& token) {
  std::vector<std::string> parts;
  std::istringstream in(token);
  for (std::string part; std::getline(in, part, '/');) parts.push_back(part);
  if (parts.size() != 8 || parts[0] != "fault") return false;
  const int kind = IndexOf(kKinds, parts[2]), fault = IndexOf(kFaults, parts[4]), policy = IndexOf(kPolicies, parts[6]);
  if (kind < 0 || fault < 0 || policy < 0) return false;
  const Workload workload = WorkloadByName(parts[1]);
  workloadName_ = workload.name;
  std::uint64_t reached = 0;
  Try(workload,
      {static_cast<Plan::Kind>(kind), std::strtoull(parts[3].c_str(), nullptr, 10), static_cast<Fault>(fault),
       parts[5] == "lasting", static_cast<Policy>(policy), parts[7] == "keep"},
      reached);
  return true;
}

}  // namespace explore
