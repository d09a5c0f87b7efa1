// Measures whole workloads of Blobring and its peers and reports them.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "bench/Report.h"

namespace {

bool IsWanted(const std::vector<std::string>& only, const std::string& name) {
  return only.empty() || std::find(only.begin(), only.end(), name) != only.end();
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> scenarios, stores;
  std::size_t divisor = 1;
  int rounds = 0;
  CLI::App app(
      "Measures Blobring beside other stores below $TMPDIR; the report goes to standard output");
  app.add_option("--scenarios", scenarios, "Only these: tiny small medium large huge commits many")
      ->delimiter(',');
  app.add_option("--stores", stores, "Only these, by the names of the report")->delimiter(',');
  app.add_option("--divisor", divisor, "Divides every number of blobs")->check(CLI::Range(1, 1000));
  app.add_option("--rounds", rounds, "Instead of each scenario's own")->check(CLI::Range(1, 1000));
  CLI11_PARSE(app, argc, argv);

  std::string directory =
      (std::filesystem::temp_directory_path() / "blobring-bench-XXXXXX").string();
  if (::mkdtemp(directory.data()) == nullptr) return std::perror(directory.c_str()), 1;
  int status = 0;
  try {
    bench::Results results;
    for (const bench::Contender& contender :
         {bench::Blobring(), bench::Lmdb(), bench::Sqlite(), bench::RocksDb(), bench::LevelDb()})
      if (IsWanted(stores, contender.name)) results.contenders.push_back(contender);
    for (const auto& [id, make] : bench::AllScenarios()) {
      if (!IsWanted(scenarios, id)) continue;
      bench::Scenario scenario = make(divisor);
      if (rounds > 0) scenario.rounds = rounds;
      bench::Run(scenario, results.contenders, directory, results.samples);
      for (const bench::Step& step : scenario.steps)
        results.steps.push_back(
            {.id = step.id, .title = step.title, .run = {}, .putBytes = step.putBytes});
    }
    bench::WriteMarkdown(results, std::cout);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "workloads: %s\n", e.what());
    status = 1;
  }
  std::filesystem::remove_all(directory);
  return status;
}
