#include "bench/Measure.h"

#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <thread>

#include "bench/Require.h"

namespace bench {

namespace {

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

double CpuSeconds() {
  rusage usage;
  Require(::getrusage(RUSAGE_SELF, &usage) == 0, "clock", "getrusage");
  return Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
}

double WallSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double WrittenBytes() {
  std::ifstream io("/proc/self/io");
  std::string name;
  double value = 0;
  while (io >> name >> value)
    if (name == "write_bytes:") return value;
  return 0;
}

struct Running {
  std::string name;
  std::filesystem::path home;
  std::unique_ptr<Store> store;  // none for the limit
};

void RunStep(const Step& step, Running& running, Samples& samples) {
  if (!running.store) {
    if (step.limit) samples[step.id][running.name].push_back(Measure(step.limit));
    return;
  }
  if (step.takesPart && !step.takesPart(running.name)) return;
  if (step.prepare) step.prepare(*running.store);
  WaitForHelperThreads();
  const double writtenBefore = WrittenBytes();
  Sample sample = Measure([&] { step.run(*running.store); });
  WaitForHelperThreads();
  sample.writtenBytes = WrittenBytes() - writtenBefore;  // with what was left to helper threads
  sample.storedBytes = step.storedBytes;
  if (step.verify) step.verify(*running.store);
  samples[step.id][running.name].push_back(sample);
}

bool Has(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

std::vector<Running> OpenAll(const Scenario& scenario, int round, const std::filesystem::path& directory,
                             const std::vector<std::string>& only) {
  std::vector<Running> all;
  for (const Contender& contender : AllContenders()) {
    if (!Has(scenario.contenders, contender.name) || (!only.empty() && !Has(only, contender.name))) continue;
    const std::filesystem::path home = directory / scenario.id / std::to_string(round) / contender.name;
    std::filesystem::create_directories(home);
    all.push_back({contender.name, home, contender.make(home)});
    all.back().store->Open();
  }
  all.push_back({kLimit, {}, nullptr});
  return all;
}

void RemoveAll(std::vector<Running> all) {
  for (Running& running : all) {
    running.store.reset();
    const bool manyFiles = running.name == kFiles || running.name == kFileBatches;
    if (!running.home.empty() && !manyFiles) std::filesystem::remove_all(running.home);
  }
  ::sync();  // the removal is nobody's to wait for
}

void RunRound(const Scenario& scenario, int round, std::vector<Running>& all, Samples& samples) {
  int turn = round;
  for (const Step& step : scenario.steps) {
    ShowProgress(fmt::format("{}: round {} of {}, {}", scenario.id, round + 1, scenario.rounds, step.id));
    for (std::size_t i = 0; i < all.size(); ++i)
      RunStep(step, all[(i + static_cast<std::size_t>(turn)) % all.size()], samples);
    ++turn;
  }
}

}  // namespace

void ShowProgress(const std::string& text) {
  if (::isatty(STDERR_FILENO) != 0) fmt::print(stderr, "\r{:<70}\r", text);
}

Sample Measure(const std::function<void()>& measured) {
  Sample sample;
  const double cpu = CpuSeconds();
  const double wall = WallSeconds();
  measured();
  sample.wallSeconds = WallSeconds() - wall;
  sample.cpuSeconds = CpuSeconds() - cpu;
  return sample;
}

void WaitForHelperThreads() {
  using namespace std::chrono_literals;
  constexpr double kIdle = 0.0005;  // seconds of work in a pause
  for (int quiet = 0; quiet < 2;) {
    const double before = CpuSeconds();
    std::this_thread::sleep_for(10ms);
    quiet = CpuSeconds() - before < kIdle ? quiet + 1 : 0;
  }
}

void Run(const Scenario& scenario, const std::filesystem::path& directory, const std::vector<std::string>& only,
         Samples& samples) {
  const double began = WallSeconds();
  for (int round = 0; round < scenario.rounds; ++round) {
    std::vector<Running> all = OpenAll(scenario, round, directory, only);
    RunRound(scenario, round, all, samples);
    RemoveAll(std::move(all));
  }
  ShowProgress("");
  fmt::print(stderr, "{}: {}, {} rounds in {:.0f} s\n", scenario.id, scenario.title, scenario.rounds,
             WallSeconds() - began);
}

}  // namespace bench
