// Measures the steps of a scenario. Every contender does a step before any of them does the next
// one, in an order that moves on with every step and round, so that a disturbance of the machine
// affects all of them. One process, one thread of our own.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "bench/Store.h"

namespace bench {

// What one contender took for one step in one round.
struct Sample {
  double cpu = 0;      // seconds, user and system, of all threads of the process
  double wall = 0;     // seconds
  double written = 0;  // bytes that the kernel was given for a device (proc(5), io)
};

// The lower bound: the format's work without a store.
inline constexpr const char* kLimit = "limit";

struct Step {
  std::string id;     // such as "small.put"
  std::string title;  // for a reader
  std::function<void(Store& store)> run;
  std::function<void(Store& store)> prepare = {};  // before the clock starts; may be empty
  std::function<void(const std::filesystem::path& directory)> limit =
      {};                    // empty: no lower bound is measured
  std::size_t putBytes = 0;  // bytes of blobs that it puts
};

struct Scenario {
  std::string id;
  int rounds;
  std::vector<Step> steps;
};

// By step and contender: one sample a round, in order.
using Samples = std::map<std::string, std::map<std::string, std::vector<Sample>>>;

// By id, what makes each scenario. The result holds its data, which may be large. divisor divides
// every number of blobs.
using ScenarioMaker = Scenario (*)(std::size_t divisor);
const std::vector<std::pair<std::string, ScenarioMaker>>& AllScenarios();

// Runs a scenario with the given contenders and adds to samples. Stores are made below directory
// and removed. Reports progress on standard error.
void Run(const Scenario& scenario, const std::vector<Contender>& contenders,
         const std::filesystem::path& directory, Samples& samples);

}  // namespace bench
