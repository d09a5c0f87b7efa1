// Measures whole workloads of Blobring and its peers and reports them.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>

#include "bench/Machine.h"
#include "bench/Report.h"
#include "bench/Workloads.h"

namespace {

struct Options {
  std::string directory = (std::filesystem::temp_directory_path() / "blobring-bench").string();
  std::string markdown, chart, samples;
  std::vector<std::string> scenarios, stores;
  bench::Extent extent;
};

Options Parse(CLI::App& app, int argc, char** argv) {
  Options options;
  app.add_option("--dir", options.directory, "Where the stores are made; emptied before and after")
      ->capture_default_str();
  app.add_option("--markdown", options.markdown, "Writes the report to this file; else to standard output");
  app.add_option("--chart", options.chart, "Writes the chart, SVG, to this file");
  app.add_option("--samples", options.samples, "Writes every sample, CSV, to this file");
  app.add_option("--scenarios", options.scenarios, "Only these: large medium tiny commits small files scaling")
      ->delimiter(',');
  app.add_option("--stores", options.stores, "Only these, by the names of the report")->delimiter(',');
  app.add_option("--divisor", options.extent.divisor, "Divides every number of blobs")->check(CLI::Range(1, 1000));
  app.add_option("--rounds", options.extent.rounds, "In place of each scenario's own")->check(CLI::Range(1, 1000));
  app.parse(argc, argv);
  return options;
}

bool IsWanted(const Options& options, const std::string& id) {
  return options.scenarios.empty() ||
         std::find(options.scenarios.begin(), options.scenarios.end(), id) != options.scenarios.end();
}

bench::Results MeasureAll(const Options& options, const std::filesystem::path& directory) {
  bench::Results results;
  for (const bench::NamedScenario& named : bench::AllScenarios()) {
    if (!IsWanted(options, named.id)) continue;
    const bench::Scenario scenario = named.make(options.extent);
    bench::Run(scenario, directory, options.stores, results.samples);
    for (const bench::Step& step : scenario.steps)
      results.steps.push_back({.id = step.id, .title = step.title, .run = {}, .storedBytes = step.storedBytes});
  }
  if (IsWanted(options, "scaling")) results.scaling = bench::MeasureScaling(options.extent, directory, options.stores);
  results.machine = bench::DescribeMachine(directory.parent_path());
  return results;
}

template <class Write>
void WriteTo(const std::string& path, Write write, const bench::Results& results) {
  std::ofstream out(path);
  write(results, out);
  out.close();
  if (!out) throw std::runtime_error("cannot write " + path);
}

void Report(const Options& options, const bench::Results& results) {
  if (options.markdown.empty()) {
    bench::WriteMarkdown(results, std::cout);
  } else {
    WriteTo(options.markdown, bench::WriteMarkdown, results);
  }
  if (!options.chart.empty()) WriteTo(options.chart, bench::WriteChart, results);
  if (!options.samples.empty()) WriteTo(options.samples, bench::WriteSamples, results);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Measures Blobring beside other stores");
  try {
    const Options options = Parse(app, argc, argv);
    const std::filesystem::path directory = std::filesystem::absolute(options.directory);
    std::filesystem::remove_all(directory);
    const bench::Results results = MeasureAll(options, directory);
    std::filesystem::remove_all(directory);
    Report(options, results);
    return 0;
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "\nworkloads: %s\n", e.what());
    return 1;
  }
}
