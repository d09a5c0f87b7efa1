// power_cut_explorer [STATES [SEED [WORKLOAD]]]
//
// Tries to make the store lose something on the simulated machine. In every script and some random
// workloads, fails each platform call and refuses each allocation and release in turn; then
// explores STATES distinct disks after a power cut (default 1,000,000). STATES may be BRIEF: a
// sample of everything, for the test suite; BRIEFEST: a smaller one, for it under sanitizers.
// WORKLOAD is a script (Run.h) or "r" and a seed. Exits with 1 if anything was found.
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <unordered_set>

#include "tests/sim/Run.h"
#include "tests/support/SimDiagnostics.h"

namespace {

using namespace explore;
using sim::Fault;
using sim::Files;

// Cuts the power at every moment of a workload, and opens what is found.
//
// Moments: before every call that changes the disk or makes a change durable, and after the last.
// Disks: every combination of what was not flushed (SimCrash.h) while there are few, else the
// ordered prefix, nothing, each unit alone and each unit left out, and a seeded sample. Each must
// recover (ExpectRecovery) with what the last acknowledged commit left, or the one under way.
// A cut during recovery is the same again on the disks that recovery passes through. A killed
// process leaves its writes unflushed: the next one works on top of them, and the power is cut
// under that one in turn.
//
// A state counts once: states are told apart by a 64-bit hash of the disk, the number of slots and
// the contents that are allowed.
class PowerCut {
 public:
  struct Limits {
    std::uint64_t states = ~std::uint64_t{0};  // in all; further ones are left out
    std::uint64_t exhaustive = 1024;           // up to this many disks of one moment: all of them
    unsigned sample = 96;                      // above: this many at random
    unsigned nestedExhaustive = 64;            // the same for a cut during recovery
    unsigned nestedSample = 12;
    unsigned followUpEvery = 16;  // one state in so many: cuts in the new commit as well
  };
  PowerCut(std::uint64_t seed, const Limits& limits) : seed_(seed), limits_(limits) {}

  // Runs the workload and explores every moment of it.
  void Explore(const Workload& workload) {
    workload_ = &workload;
    Run run(workload, Plan());
    run_ = &run;
    // After an acknowledged commit nothing need follow for its loss to count.
    run.afterStep = [&](char kind) {
      if (kind == 'E' || kind == 'R') AddMoment(0);
    };
    try {
      Watch(0);
      run.Go();
      AddMoment(0);
      Files().watcher = nullptr;
      ExploreMoments(0);
    } catch (const Violation& violation) {
      Report(0, violation);
    }
  }

  std::uint64_t states() const { return seen_.size(); }
  std::uint64_t moments() const { return moments_; }
  const std::vector<std::string>& findings() const { return findings_; }
  bool Full() const { return states() >= limits_.states || findings_.size() >= 5; }

 private:
  struct Moment {
    sim::Disk disk;
    std::vector<Mask> allowed;
  };
  // One level of a nest of power cuts: the first run, the opening of what it left, the opening of
  // what that left.
  struct Level {
    std::vector<Moment> moments;
    std::size_t at = 0;
    std::vector<Mask> allowed;  // of the opening that is being watched
  };
  static constexpr int kLevels = 3;

  // ---- Watching a run: a snapshot at every moment ------------------------------

  void AddMoment(int level) {
    Level& at = levels_[level];
    at.moments.push_back({Files().disk, level == 0 ? run_->allowed() : at.allowed});
    ++moments_;
  }

  void Watch(int level) {
    levels_[level].moments.clear();
    Files().watcher = [this, level] { AddMoment(level); };
  }

  void Report(int levels, const Violation& violation) {
    std::string text = workload_->name;
    for (int i = 0; i < levels; ++i) text += ", moment " + std::to_string(levels_[i].at);
    findings_.push_back(text + ": " + violation.text);
    Files().watcher = nullptr;
    Files().Kill();
    Files().Restart();
  }

  // ---- Every disk of a moment ---------------------------------------------------

  void ExploreMoments(int level) {
    Level& at = levels_[level];
    for (at.at = 0; at.at < at.moments.size() && !Full(); ++at.at) ExploreMoment(level);
  }

  void ExploreMoment(int level) {
    const Level& at = levels_[level];
    const sim::CrashStates states(at.moments[at.at].disk, Forged);
    const std::uint64_t limit = level == 0 ? limits_.exhaustive : limits_.nestedExhaustive;
    if (states.Count(limit + 1) <= limit) {
      sim::Choices choices(states.units(), 0);
      do TryBuilt(level, states.Build(choices));
      while (states.Next(choices));
    } else {
      TryFew(level, states);
    }
    if (level > 0 || states.units() == 0) return;
    Files().disk = at.moments[at.at].disk;  // the process killed
    Try(level, true);
  }

  void TryFew(int level, const sim::CrashStates& states) {
    const std::size_t units = states.units();
    sim::Choices choices(units);
    const auto tryIt = [&] { TryBuilt(level, states.Build(choices)); };
    for (const bool all : {false, true}) {
      const auto version = [&](std::size_t unit) { return all ? states.written(unit) : 0; };
      for (std::size_t unit = 0; unit < units; ++unit) choices[unit] = version(unit);
      tryIt();
      for (std::size_t unit = 0; unit < units; ++unit) {
        choices[unit] = states.written(unit) - version(unit);
        tryIt();
        for (unsigned other = states.written(unit) + 1; other < states.versions(unit); ++other) {
          choices[unit] = other;
          tryIt();
        }
        choices[unit] = version(unit);
      }
    }
    Random random(seed_ ^ (levels_[level].at * 1000003U) ^
                  std::hash<std::string>()(workload_->name));
    for (unsigned n = level == 0 ? limits_.sample : limits_.nestedSample; n > 0 && !Full(); --n) {
      for (std::size_t unit = 0; unit < units; ++unit)
        choices[unit] = random.Below(states.versions(unit));
      tryIt();
    }
  }

  void TryBuilt(int level, const sim::Image& image) {
    const Level& at = levels_[level];
    if (Full()) return;
    std::uint64_t hash =
        sim::Hash(image) ^ static_cast<unsigned>(2 * workload_->slots + (workload_->keep ? 1 : 0));
    for (const Mask contents : at.moments[at.at].allowed) hash = Random(hash ^ contents).Next();
    if (!seen_.insert(hash).second) return;
    Files().disk.Load(image);
    Try(level, level == 0 && hash % limits_.followUpEvery == 0);
  }

  // ---- One disk -------------------------------------------------------------------

  void Try(int level, bool watchCommit) {
    const std::vector<Mask>& allowed = levels_[level].moments[levels_[level].at].allowed;
    const bool isNested = level + 1 < kLevels;
    Files().Restart();
    if (isNested) {
      levels_[level + 1].allowed = allowed;
      Watch(level + 1);
    }
    try {
      ExpectRecovery(Session(workload_->slots, workload_->keep), &allowed, workload_->IsSound(),
                     [&](Stage stage, Mask before, Mask after) {
                       if (isNested && watchCommit) {
                         std::vector<Mask>& next = levels_[level + 1].allowed;
                         // What was shown after a process was killed, a power cut may still take
                         // back, until the next commit is acknowledged.
                         if (stage == Stage::Committing) next.insert(next.end(), {before, after});
                         if (stage == Stage::Committed) {
                           next = {after};
                           AddMoment(level + 1);
                         }
                       }
                       if (stage == Stage::Committed || !watchCommit) Files().watcher = nullptr;
                     });
    } catch (const Violation& violation) {
      return Report(level + 1, violation);
    }
    if (isNested) ExploreMoments(level + 1);
  }

  const std::uint64_t seed_;
  const Limits limits_;
  std::unordered_set<std::uint64_t> seen_;
  std::uint64_t moments_ = 0;
  std::vector<std::string> findings_;
  const Workload* workload_ = nullptr;
  const Run* run_ = nullptr;
  Level levels_[kLevels];
};

std::uint64_t runs, failedRuns, violations;
std::set<std::string> texts;  // one finding for each text, without its details

void Report(const std::string& text) {
  ++violations;
  std::printf("violation: %s\n", text.c_str());
}

void Fail(Workload workload, const Plan& plan, bool keep = true) {
  workload.keep = keep;
  ++runs;
  Run run(workload, plan);
  try {
    run.Go();
  } catch (const Violation& violation) {
    Files().Kill();
    Files().Restart();
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
  Run healthy(kept, {Plan::Kind::Call, ~std::uint64_t{0}});
  healthy.Go();
  const std::vector<sim::Call> calls = Files().log;
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
  const std::string_view amount = argc > 1 ? argv[1] : "";
  const bool isBriefest = amount == "BRIEFEST";
  const bool isBrief = isBriefest || amount == "BRIEF";
  PowerCut::Limits limits;
  limits.states = argc > 1 && !isBrief ? std::strtoull(argv[1], nullptr, 10) : 1'000'000;
  if (isBrief) limits = {~std::uint64_t{0}, 48, 12, 64, 12, 256};
  if (isBriefest) limits = {~std::uint64_t{0}, 8, 2, 2, 1, 1024};
  const std::uint64_t seed = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1;
  const std::vector<Workload> workloads =
      argc > 3 ? std::vector<Workload>{WorkloadByName(argv[3])} : Scripts();
  const auto random = [seed](std::uint64_t n) { return RandomWorkload(seed * 1'000'000 + n); };
  const bool goesOn = argc <= 3 && !isBrief;
  sim::Diagnostics().recording = argc > 3;

  for (std::size_t i = 0; i < workloads.size(); ++i)
    if (!isBrief || i % (isBriefest ? 30 : 6) == 2) FailEverything(workloads[i]);
  for (std::uint64_t n = 0; goesOn && n < limits.states / 100'000; ++n) FailEverything(random(n));
  std::printf("%llu runs, something failed in %llu\n", static_cast<unsigned long long>(runs),
              static_cast<unsigned long long>(failedRuns));

  PowerCut cut(seed, limits);
  for (std::size_t i = 0; i < workloads.size(); i += isBriefest ? 3 : 1) cut.Explore(workloads[i]);
  for (std::uint64_t n = 0; goesOn && !cut.Full(); ++n) cut.Explore(random(n));
  for (const std::string& finding : cut.findings()) Report(finding);
  std::printf("%llu distinct disks after a power cut at %llu moments\n",
              static_cast<unsigned long long>(cut.states()),
              static_cast<unsigned long long>(cut.moments()));
  if (isBrief && !isBriefest && cut.states() < 25'000)
    Report("a simulated disk kinder than a real one");

  try {
    const unsigned tails = isBriefest ? 500 : isBrief ? 2000 : 100'000;
    const unsigned torn = argc > 3 ? 0 : TryLostTails(seed, tails);
    std::printf("%u of the tails that were lost fit a power cut\n", torn);
  } catch (const Violation& violation) {
    Report(violation.text);
  }

  std::printf("violations: %llu\n", static_cast<unsigned long long>(violations));
  return violations == 0 ? 0 : 1;
}
