// power_cut_explorer: tries to make the store lose something, on a simulated
// machine. Exit status 0 nothing found, 1 something found, 2 usage.
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/sim/FaultRuns.h"
#include "tests/sim/PowerCut.h"
#include "tests/support/SimDiagnostics.h"

namespace {

constexpr char kUsage[] =
    "usage: power_cut_explorer [--states N] [--seed S] [--time-limit SECONDS] [--no-faults] [--workload NAME]\n"
    "       power_cut_explorer --replay TOKEN\n"
    "  --states N      stop at N distinct disk states (default 1000000)\n"
    "  --seed S        seed of the random workloads and samples (default 1)\n"
    "  --time-limit T  stop after T seconds\n"
    "  --no-faults     power cuts alone\n"
    "  --workload NAME this workload alone: sN, rSEED or a script\n"
    "  --replay TOKEN  one state or fault that was reported, with the store's trace\n";

constexpr std::uint64_t kSeedStride = 1000000;
// The more disk states, the more random workloads on failing machines.
constexpr std::uint64_t kStatesPerFaultWorkload = 100000;

struct Options {
  std::uint64_t states = 1000000;
  std::uint64_t seed = 1;
  double timeLimit = 1e9;
  bool faults = true;
  std::string workload, replay;
};

bool Parse(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    if (option == "--no-faults") {
      options.faults = false;
      continue;
    }
    if (i + 1 == argc) return false;
    const char* value = argv[++i];
    if (option == "--states")
      options.states = std::strtoull(value, nullptr, 10);
    else if (option == "--seed")
      options.seed = std::strtoull(value, nullptr, 10);
    else if (option == "--time-limit")
      options.timeLimit = std::atof(value);
    else if (option == "--workload")
      options.workload = value;
    else if (option == "--replay")
      options.replay = value;
    else
      return false;
  }
  return true;
}

const explore::PowerCut* g_cut = nullptr;
const explore::FaultRuns* g_runs = nullptr;

// A crash of the store is a finding too. Not safe as signal handlers go, but
// the program is lost anyway.
void Crashed(int signal) {
  const std::string token = g_runs != nullptr ? g_runs->CurrentToken() : g_cut != nullptr ? g_cut->CurrentToken() : "";
  std::fprintf(stdout, "violation: signal %d\n  --replay '%s'\n", signal, token.c_str());
  std::fflush(stdout);
  _exit(1);
}

void Print(const std::vector<explore::Finding>& findings) {
  for (const explore::Finding& finding : findings)
    std::printf("violation: %s\n  --replay '%s'\n", finding.text.c_str(), finding.token.c_str());
}

int Replay(const std::string& token) {
  sim::Diagnostics().Record(true);
  explore::PowerCut cut(1);
  explore::FaultRuns runs;
  if (!cut.Replay(token) && !runs.Replay(token)) {
    std::fprintf(stderr, "no such state: %s\n", token.c_str());
    return 2;
  }
  std::printf("%s%s", sim::Diagnostics().Text().c_str(), cut.description().c_str());
  Print(cut.findings());
  Print(runs.findings());
  const bool sound = cut.findings().empty() && runs.findings().empty();
  if (sound) std::printf("no violation\n");
  return sound ? 0 : 1;
}

class Clock {
 public:
  double Seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count(); }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!Parse(argc, argv, options)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  for (const int signal : {SIGSEGV, SIGABRT, SIGFPE, SIGBUS}) std::signal(signal, Crashed);
  if (!options.replay.empty()) return Replay(options.replay);

  const Clock clock;
  sim::Diagnostics().Record(false);
  explore::FaultRuns runs;
  if (options.faults) {
    g_runs = &runs;
    if (!options.workload.empty()) {
      runs.Explore(explore::WorkloadByName(options.workload));
    } else {
      for (int i = 0; i < explore::ScriptCount(); ++i) runs.Explore(explore::Script(i));
      for (std::uint64_t n = 0; n < options.states / kStatesPerFaultWorkload && clock.Seconds() < options.timeLimit;
           ++n)
        runs.Explore(explore::RandomWorkload(options.seed * kSeedStride + n));
    }
    g_runs = nullptr;
    std::printf("faults: %llu calls failed, %llu allocations and %llu releases refused, in %llu runs; %.1f s\n",
                static_cast<unsigned long long>(runs.faults()), static_cast<unsigned long long>(runs.allocations()),
                static_cast<unsigned long long>(runs.releases()), static_cast<unsigned long long>(runs.runs()),
                clock.Seconds());
  }

  explore::PowerCut::Limits limits;
  limits.states = options.states;
  explore::PowerCut cut(options.seed, limits);
  g_cut = &cut;
  std::uint64_t workloads = 0;
  if (!options.workload.empty()) {
    cut.Explore(explore::WorkloadByName(options.workload));
    ++workloads;
  } else {
    for (int i = 0; i < explore::ScriptCount() && !cut.Full(); ++i, ++workloads) cut.Explore(explore::Script(i));
    for (std::uint64_t n = 0; !cut.Full() && clock.Seconds() < options.timeLimit; ++n, ++workloads)
      cut.Explore(explore::RandomWorkload(options.seed * kSeedStride + n));
  }
  g_cut = nullptr;
  std::printf("power cuts: %llu distinct disk states at %llu moments of %llu workloads, seed %llu; %.1f s\n",
              static_cast<unsigned long long>(cut.states()), static_cast<unsigned long long>(cut.moments()),
              static_cast<unsigned long long>(workloads), static_cast<unsigned long long>(options.seed),
              clock.Seconds());
  Print(runs.findings());
  Print(cut.findings());
  const std::size_t violations = runs.findings().size() + cut.findings().size();
  std::printf("violations: %zu\n", violations);
  return violations == 0 ? 0 : 1;
}
