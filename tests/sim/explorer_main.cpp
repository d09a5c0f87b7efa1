// power_cut_explorer [STATES [SEED [WORKLOAD]]]
//
// Tries to make the store lose something on the simulated machine. In every script and some random
// workloads, fails each platform call and refuses each allocation and release in turn; then
// explores STATES distinct disks after a power cut (default 1,000,000). STATES may be BRIEF: a
// sample of everything, for the test suite. WORKLOAD is a script (Run.h) or "r" and a seed. Exits
// with 1 if anything was found.
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>

#include "tests/sim/PowerCut.h"
#include "tests/support/SimDiagnostics.h"

namespace {

using explore::Plan;
using explore::Workload;
using sim::Fault;

std::uint64_t runs, failedRuns, violations;
std::set<std::string> texts;  // one finding for each text, without its details

void Report(const std::string& text) {
  ++violations;
  std::printf("violation: %s\n", text.c_str());
}

void Fail(Workload workload, const Plan& plan, bool keep = true) {
  workload.keep = keep;
  ++runs;
  explore::Run run(workload, plan);
  try {
    run.Go();
  } catch (const explore::Violation& violation) {
    sim::Files().Kill();
    sim::Files().Restart();
    if (texts.insert(violation.text.substr(0, violation.text.find('{'))).second)
      Report(workload.name + ", " + " caf"[static_cast<int>(plan.kind)] + std::to_string(plan.n) +
             " fault " + std::to_string(static_cast<int>(plan.fault)) + ": " + violation.text);
  }
  if (run.failed()) ++failedRuns;
}

// Whatever the caller then does, and with everything failing from there on.
void FailAt(const Workload& workload, Plan plan, bool lasting) {
  for (const auto then : {Plan::Then::Reopen, Plan::Then::AskAgain, Plan::Then::GoOn}) {
    plan.then = then;
    Fail(workload, plan);
  }
  Fail(workload, {plan.kind, plan.n, plan.fault}, false);
  plan.fromThenOn = true;
  for (const bool keep : {true, false})
    if (lasting) Fail(workload, plan, keep);
}

void FailEverything(const Workload& workload) {
  // A run in which nothing fails says what can.
  Workload kept = workload;
  kept.keep = true;
  explore::Run healthy(kept, {Plan::Kind::Call, ~std::uint64_t{0}});
  healthy.Go();
  const std::vector<sim::Call> calls = sim::Files().log;
  // Of a long workload the end, and of its repetitions a part.
  const auto skips = [](std::uint64_t n, std::uint64_t count) {
    return n + 250 < count && n % 8 != 0;
  };
  for (std::uint64_t n = 1; n <= calls.size(); ++n)
    for (const Fault fault :
         {Fault::Error, Fault::Partial, Fault::DiskFull, Fault::Busy, Fault::DoneButFailed})
      if (!skips(n, calls.size()) && sim::CanFail(calls[n - 1], fault))
        FailAt(workload, {Plan::Kind::Call, n, fault},
               fault == Fault::Error || fault == Fault::DiskFull);
  for (const auto kind : {Plan::Kind::Alloc, Plan::Kind::Free}) {
    const std::uint64_t count =
        kind == Plan::Kind::Alloc ? healthy.allocations() : healthy.releases();
    for (std::uint64_t n = 1; n <= count; ++n)
      if (!skips(n, count)) FailAt(workload, {kind, n}, true);
  }
}

}  // namespace

int main(int argc, char** argv) {
  // Copied disks go and come back: give no memory back to the system.
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  const bool isBrief = argc > 1 && std::strcmp(argv[1], "BRIEF") == 0;
  explore::PowerCut::Limits limits;
  limits.states = argc > 1 && !isBrief ? std::strtoull(argv[1], nullptr, 10) : 1'000'000;
  if (isBrief) limits = {~std::uint64_t{0}, 48, 12, 64, 12, 256};
  const std::uint64_t seed = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1;
  const std::vector<Workload> workloads =
      argc > 3 ? std::vector<Workload>{explore::WorkloadByName(argv[3])} : explore::Scripts();
  const auto random = [seed](std::uint64_t n) {
    return explore::RandomWorkload(seed * 1'000'000 + n);
  };
  const bool goesOn = argc <= 3 && !isBrief;
  sim::Diagnostics().recording = argc > 3;

  for (std::size_t i = 0; i < workloads.size(); ++i)
    if (!isBrief || i % 6 == 2) FailEverything(workloads[i]);
  for (std::uint64_t n = 0; goesOn && n < limits.states / 100'000; ++n) FailEverything(random(n));
  std::printf("%llu runs, something failed in %llu\n", static_cast<unsigned long long>(runs),
              static_cast<unsigned long long>(failedRuns));

  explore::PowerCut cut(seed, limits);
  for (const Workload& workload : workloads) cut.Explore(workload);
  for (std::uint64_t n = 0; goesOn && !cut.Full(); ++n) cut.Explore(random(n));
  for (const std::string& finding : cut.findings()) Report(finding);
  std::printf("%llu distinct disks after a power cut at %llu moments\n",
              static_cast<unsigned long long>(cut.states()),
              static_cast<unsigned long long>(cut.moments()));
  if (isBrief && cut.states() < 23'700) Report("a simulated disk kinder than a real one");

  try {
    const unsigned torn = argc > 3 ? 0 : explore::TryLostTails(seed, isBrief ? 2000 : 100'000);
    std::printf("%u of the tails that were lost fit a power cut\n", torn);
  } catch (const explore::Violation& violation) {
    Report(violation.text);
  }

  std::printf("violations: %llu\n", static_cast<unsigned long long>(violations));
  return violations == 0 ? 0 : 1;
}
