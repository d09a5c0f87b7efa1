// Measures steps of a scenario: every contender does a step before any does
// the next one, in an order that moves on with every round, so that what
// disturbs the machine meets all of them. One process, one thread of ours.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/Store.h"

namespace bench {

// What one contender took for one step in one round.
struct Sample {
  double cpuSeconds = 0;  // user and system, of all threads of the process
  double wallSeconds = 0;
  double writtenBytes = 0;  // that the kernel was given for a device (proc(5), io)
  double storedBytes = 0;   // of blobs that the step has put
};

struct Step {
  std::string id;     // such as "small.put"
  std::string title;  // for a reader
  std::function<void(Store& store)> run;
  // May be empty: what comes before the clock starts and what looks at the
  // result after it has stopped.
  std::function<void(Store& store)> prepare = {};
  std::function<void(Store& store)> verify = {};
  // Whether a contender takes part; empty: all do.
  std::function<bool(const std::string& name)> takesPart = {};
  // What no store can undercut; empty: there is no such thing.
  std::function<void()> limit = {};
  double storedBytes = 0;  // that it puts
};

struct Scenario {
  std::string id;
  std::string title;
  int rounds;
  std::vector<std::string> contenders;
  std::vector<Step> steps;
};

// By step and contender, the samples in order of the rounds. Samples of one
// place in the lists were taken one after the other.
using Samples = std::map<std::string, std::map<std::string, std::vector<Sample>>>;

// Runs a scenario and adds to `samples`. Stores live in `directory`; what a
// store of many files leaves there is the caller's to remove after the last
// scenario, since ext4 takes long to create files for minutes after many were
// deleted. `only` restricts the contenders unless it is empty; tells on
// standard error how far it is.
void Run(const Scenario& scenario, const std::filesystem::path& directory, const std::vector<std::string>& only,
         Samples& samples);

// Says on standard error, if that is a terminal, what is being measured.
void ShowProgress(const std::string& text);

// Runs what is measured between two looks at the clocks.
Sample Measure(const std::function<void()>& measured);

// Returns when the helper threads of other stores have nothing more to do, so
// that their work is not counted as another's.
void WaitForHelperThreads();

}  // namespace bench
