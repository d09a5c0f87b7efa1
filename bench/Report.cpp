#include "bench/Report.h"

#include <fmt/format.h>

#include <algorithm>
#include <ostream>

#include "bench/Statistics.h"

namespace bench {

namespace {

enum class Against { BestPeer, Limit, Nothing };

struct Goal {
  const char* step;
  Quantity quantity;
  Against against;
  double most;
  bool hashFileCounts = false;
};

// What we set out to reach: at most so much of the best peer's, or of the
// limit's.
constexpr Goal kGoals[] = {
    {"small.put", Quantity::Cpu, Against::BestPeer, 0.33},
    {"small.put", Quantity::Wall, Against::BestPeer, 0.45},
    {"small.put", Quantity::Written, Against::Nothing, 1.12},
    {"large.put", Quantity::Cpu, Against::BestPeer, 0.70},
    {"commits.growing", Quantity::Cpu, Against::BestPeer, 0.90},
    {"commits.growing", Quantity::Wall, Against::BestPeer, 1.00},
    {"commits.reused", Quantity::Wall, Against::BestPeer, 0.80},
    {"tiny.put", Quantity::Cpu, Against::BestPeer, 0.55},
    {"tiny.put", Quantity::Cpu, Against::BestPeer, 0.55, true},
    {"small.fetch", Quantity::Cpu, Against::BestPeer, 0.92},
    {"small.fetch", Quantity::Cpu, Against::BestPeer, 0.92, true},
    {"large.fetch", Quantity::Cpu, Against::BestPeer, 0.95},
    {"small.sizes", Quantity::Cpu, Against::BestPeer, 0.60},
    {"small.sizes", Quantity::Cpu, Against::BestPeer, 0.60, true},
    {"small.enumerate", Quantity::Cpu, Against::BestPeer, 0.70},
    {"small.compact", Quantity::Cpu, Against::BestPeer, 0.50},
    {"small.open", Quantity::Cpu, Against::BestPeer, 1.00},
    {"medium.open", Quantity::Cpu, Against::BestPeer, 1.00},
    {"medium.open", Quantity::Cpu, Against::Limit, 1.15},
    {"medium.check", Quantity::Cpu, Against::Limit, 0.25},
};

constexpr double kMostIndexBytes = 128;

const char* NameOf(Quantity quantity) {
  switch (quantity) {
    case Quantity::Cpu:
      return "CPU";
    case Quantity::Wall:
      return "wall";
    case Quantity::Written:
      return "bytes written / stored";
  }
  return "";
}

std::string Number(double value) {
  if (value >= 10) return fmt::format("{:.1f}", value);
  return value >= 1 ? fmt::format("{:.2f}", value) : fmt::format("{:.3f}", value);
}

std::string TitleOf(const Results& results, const std::string& id) {
  const auto step = std::find_if(results.steps.begin(), results.steps.end(), [&](const Step& s) { return s.id == id; });
  return step == results.steps.end() ? id : step->title;
}

void WriteGoalRow(const std::string& title, const std::string& measure, const std::string& ours,
                  const std::string& other, double reached, double most, std::ostream& out) {
  out << fmt::format("| {} | {} | {} | {} | {:.2f} | {:.2f} | {} |\n", title, measure, ours, other, reached, most,
                     reached <= most ? "yes" : "**no**");
}

void WriteGoal(const Goal& goal, const Results& results, std::ostream& out) {
  const auto found = results.samples.find(goal.step);
  if (found == results.samples.end() || !found->second.contains(kBlobring)) return;
  const auto& samples = found->second;
  const std::string title = TitleOf(results, goal.step);
  const double ours = MedianOf(samples.at(kBlobring), goal.quantity);
  const auto row = [&](const std::string& other, double reached) {
    WriteGoalRow(title, NameOf(goal.quantity), Number(ours), other, reached, goal.most, out);
  };
  if (goal.against == Against::Nothing) {
    row("-", ours);
  } else if (goal.against == Against::BestPeer) {
    const auto best = BestPeer(samples, goal.quantity, goal.hashFileCounts);
    if (best) row(best->name + " " + Number(best->value), best->ratio);
  } else if (samples.contains(kLimit)) {
    const auto& limit = samples.at(kLimit);
    row("one MD5 pass " + Number(MedianOf(limit, goal.quantity)),
        MedianRatio(samples.at(kBlobring), limit, goal.quantity));
  }
}

void WriteGoals(const Results& results, std::ostream& out) {
  out << "## Goals\n\nSeconds, and the ratio of ours to the best peer's or the limit's; lower is better.\n"
         "Where a goal names the hash file, which is no store, it has a line of its own.\n\n"
         "| workload | measure | Blobring | beside | ratio | goal | met |\n|---|---|---:|---|---:|---:|---|\n";
  for (const Goal& goal : kGoals) WriteGoal(goal, results, out);
  const ScalePoint* largest = nullptr;
  for (const ScalePoint& point : results.scaling)
    if (point.name == kBlobring) largest = &point;
  if (largest != nullptr)
    WriteGoalRow(fmt::format("index of {} blobs", largest->blobCount), "bytes a blob",
                 fmt::format("{:.1f}", largest->indexBytes), "-", largest->indexBytes, kMostIndexBytes, out);
}

std::vector<std::string> Columns() {
  std::vector<std::string> names;
  for (const Contender& contender : AllContenders()) names.push_back(contender.name);
  names.emplace_back(kLimit);
  return names;
}

void WriteTable(Quantity quantity, const Results& results, std::ostream& out) {
  out << "| workload |";
  for (const std::string& name : Columns()) out << " " << name << " |";
  out << "\n|---|";
  for (std::size_t i = 0; i < Columns().size(); ++i) out << "---:|";
  out << "\n";
  for (const Step& step : results.steps) {
    const auto found = results.samples.find(step.id);
    if (found == results.samples.end()) continue;
    if (quantity == Quantity::Written && step.storedBytes == 0) continue;
    out << "| " << step.title << " |";
    for (const std::string& name : Columns()) {
      const auto samples = found->second.find(name);
      const double value = samples == found->second.end() ? 0 : MedianOf(samples->second, quantity);
      out << " " << (value > 0 ? Number(value) : "") << " |";
    }
    out << "\n";
  }
}

void WriteScaling(const Results& results, std::ostream& out) {
  if (results.scaling.empty()) return;
  out << fmt::format(
      "\n## How cost grows\n\nCPU microseconds a blob, blobs of {} bytes, 10,000 a commit; {} random verified fetches "
      "and sizes.\nOpening verifies every blob for Blobring and nothing for the others. Memory is what the process "
      "grew "
      "by at the open,\nin bytes a blob, and what the library then had from the system for its index.\n\n",
      kScaleBlobSize, kScaleReads);
  out << "| blobs | store | put | open | get | size | memory | index |\n|---:|---|---:|---:|---:|---:|---:|---:|\n";
  for (const ScalePoint& point : results.scaling) {
    const auto each = [](const Sample& sample, std::size_t count) {
      return sample.cpuSeconds * 1e6 / static_cast<double>(count);
    };
    out << fmt::format("| {} | {} | {:.2f} | {:.3f} | {:.2f} | {:.2f} | {:.0f} | {} |\n", point.blobCount, point.name,
                       each(point.put, point.blobCount), each(point.open, point.blobCount),
                       each(point.get, kScaleReads), each(point.size, kScaleReads), point.processBytes,
                       point.name == kBlobring ? fmt::format("{:.1f}", point.indexBytes) : "");
  }
}

void WriteList(const std::vector<std::string>& lines, std::ostream& out) {
  for (const std::string& line : lines) out << "- " << line << "\n";
}

constexpr const char* kHead = R"(# Performance

Written by `bench/run`, which builds the benchmarks and measures everything again; `bench/run --quick` takes under two minutes
and leaves this file alone.

![CPU time of each workload](performance.svg)

In one process every store does a step before any does the next one, in an order that moves on with every round. CPU time is user
and system time of the whole process, helper threads included up to the end of the step. Ratios are medians of the ratios of each
round. Every store computes the MD5 key of what it puts and is durable at the end of each transaction. A fetch leaves the blob in
the caller's memory; a verified one is compared with its key. All data is random, and in the page cache when it is read.

)";

}  // namespace

void WriteMarkdown(const Results& results, std::ostream& out) {
  out << kHead;
  WriteGoals(results, out);
  out << "\n## CPU seconds\n\n";
  WriteTable(Quantity::Cpu, results, out);
  out << "\n## Wall seconds\n\n";
  WriteTable(Quantity::Wall, results, out);
  out << "\n## Bytes written for each byte stored\n\nAs the kernel counts them for the process, in pages.\n\n";
  WriteTable(Quantity::Written, results, out);
  WriteScaling(results, out);
  out << "\n## Machine\n\n";
  WriteList(results.machine, out);
  out << "\n## Who is compared\n\n";
  WriteList(PeerNotes(), out);
}

void WriteSamples(const Results& results, std::ostream& out) {
  out << "step,store,round,cpu_s,wall_s,written_bytes\n";
  for (const auto& [step, byName] : results.samples)
    for (const auto& [name, samples] : byName)
      for (std::size_t i = 0; i < samples.size(); ++i)
        out << fmt::format("{},{},{},{:.6f},{:.6f},{:.0f}\n", step, name, i, samples[i].cpuSeconds,
                           samples[i].wallSeconds, samples[i].writtenBytes);
}

}  // namespace bench
