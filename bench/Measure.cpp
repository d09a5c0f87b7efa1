#include "bench/Measure.h"

#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <thread>

namespace bench {
namespace {

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

double WrittenBytes() {
  std::ifstream io("/proc/self/io");
  std::string name;
  double value = 0;
  while (io >> name >> value)
    if (name == "write_bytes:") return value;
  return 0;
}

Sample Now() {
  rusage usage;
  ::getrusage(RUSAGE_SELF, &usage);
  const auto wall = std::chrono::steady_clock::now().time_since_epoch();
  return {Seconds(usage.ru_utime) + Seconds(usage.ru_stime),
          std::chrono::duration<double>(wall).count(), WrittenBytes()};
}

// Returns when helper threads of a store have nothing more to do, so that their work is not counted
// for another contender.
void WaitForHelperThreads() {
  using namespace std::chrono_literals;
  constexpr double kIdle = 0.0005;  // seconds of work in a pause
  for (int quiet = 0; quiet < 2;) {
    const double before = Now().cpu;
    std::this_thread::sleep_for(10ms);
    quiet = Now().cpu - before < kIdle ? quiet + 1 : 0;
  }
}

struct Running {
  std::string name;
  std::filesystem::path home;
  std::unique_ptr<Store> store;  // null: the limit
};

void RunStep(const Step& step, const Running& running, Samples& samples) {
  if (!running.store && !step.limit) return;
  if (running.store && step.prepare) step.prepare(*running.store);
  WaitForHelperThreads();
  const Sample before = Now();
  if (running.store) {
    step.run(*running.store);
  } else {
    step.limit(running.home);
  }
  const Sample after = Now();
  WaitForHelperThreads();
  samples[step.id][running.name].push_back(
      {after.cpu - before.cpu, after.wall - before.wall, Now().written - before.written});
}

std::vector<Running> OpenAll(const std::vector<Contender>& contenders,
                             const std::filesystem::path& directory) {
  std::vector<Running> all;
  for (const Contender& contender : contenders) {
    const std::filesystem::path home = directory / contender.name;
    std::filesystem::create_directories(home);
    all.push_back({contender.name, home, contender.make(home)});
    all.back().store->Open();
  }
  std::filesystem::create_directories(directory / kLimit);
  all.push_back({kLimit, directory / kLimit, nullptr});
  return all;
}

}  // namespace

void Run(const Scenario& scenario, const std::vector<Contender>& contenders,
         const std::filesystem::path& directory, Samples& samples) {
  for (int round = 0; round < scenario.rounds; ++round) {
    const std::filesystem::path home = directory / scenario.id;
    std::vector<Running> all = OpenAll(contenders, home);
    std::size_t turn = static_cast<std::size_t>(round);
    for (const Step& step : scenario.steps) {
      fmt::print(stderr, "{}, round {} of {}\n", step.id, round + 1, scenario.rounds);
      for (std::size_t i = 0; i < all.size(); ++i)
        RunStep(step, all[(i + turn) % all.size()], samples);
      ++turn;
    }
    all.clear();
    std::filesystem::remove_all(home);
    ::sync();  // so that no contender of the next round pays for the removal
  }
}

}  // namespace bench
