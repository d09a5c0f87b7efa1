#include "bench/Report.h"

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <map>
#include <optional>

namespace bench {
namespace {

using Quantity = double Sample::*;

constexpr const char* kFlush =
    "A commit is a flush. A log is shorter than our records and has no header to rewrite.";
constexpr const char* kOneStream = "A pack is one transaction, and so one stream of MD5.";
constexpr const char* kNodes = "Opening makes a node of the index for each blob; peers have none.";
constexpr const char* kMd5 = "MD5 is nearly all of it, for every store.";
constexpr const char* kRecord =
    "A record takes 36 bytes besides its data, and each blob a node of the index.";
constexpr const char* kMapping =
    "LMDB reads from a mapping. Ours is one pread: a read error in a mapping is a signal\n"
    "  that ends the process.";

// Why a peer may be faster. Printed for the rows in which one is.
const std::map<std::string, std::string> kReasons = {
    {"tiny.put", kRecord},
    {"many.put", kRecord},
    {"small.fetch", kMapping},
    {"many.fetch", kMapping},
    {"small.fetch-unverified", "We compare every blob with its key; MD5 is most of a fetch."},
    {"small.enumerate",
     "SQLite walks the pages of an index of keys; we follow a node for each blob."},
    {"small.open", kNodes},
    {"many.open", kNodes},
    {"small.reopen", kOneStream},
    {"large.put", kMd5},
    {"large.fetch", kMd5},
    {"huge.put", kMd5},
    {"huge.check", kMd5},
    {"commits.growing", kFlush},
    {"commits.reused", kFlush},
};

// The median of a contender in a step (of an even number, the higher one in the middle).
std::optional<double> Median(const Results& results, const Step& step, const std::string& name,
                             Quantity quantity) {
  const auto found = results.samples.at(step.id).find(name);
  if (found == results.samples.at(step.id).end()) return std::nullopt;
  std::vector<double> values;
  for (const Sample& sample : found->second) values.push_back(sample.*quantity);
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

struct Best {
  std::string name;
  double value;
};

std::optional<Best> BestPeer(const Results& results, const Step& step, Quantity quantity) {
  std::optional<Best> best;
  for (std::size_t i = 1; i < results.contenders.size(); ++i) {
    const std::string& name = results.contenders[i].name;
    const auto value = Median(results, step, name, quantity);
    if (value && (!best || *value < best->value)) best = Best{name, *value};
  }
  return best;
}

std::string Number(double value) {
  return fmt::format("{:.{}f}", value, value >= 10 ? 1 : value >= 1 ? 2 : value >= 0.01 ? 3 : 4);
}

void WriteTable(const char* title, const Results& results, Quantity quantity, std::ostream& out) {
  std::vector<std::string> names;
  for (const Contender& contender : results.contenders) names.push_back(contender.name);
  const bool perByte = quantity == &Sample::written;
  if (!perByte) names.emplace_back(kLimit);
  fmt::print(out, "\n## {}\n\n| workload | {} | ours / best peer |\n|---|", title,
             fmt::join(names, " | "));
  for (std::size_t i = 0; i <= names.size(); ++i) out << "---:|";
  out << '\n';
  for (const Step& step : results.steps) {
    if (perByte && step.putBytes == 0) continue;
    const double unit = perByte ? static_cast<double>(step.putBytes) : 1;
    fmt::print(out, "| {} |", step.title);
    for (const std::string& name : names) {
      const auto value = Median(results, step, name, quantity);
      fmt::print(out, " {} |", value ? Number(*value / unit) : "");
    }
    const auto ours = Median(results, step, results.contenders[0].name, quantity);
    const auto best = BestPeer(results, step, quantity);
    fmt::print(out, " {} |\n",
               ours && best && best->value > 0 ? fmt::format("{:.2f}", *ours / best->value) : "");
  }
}

void WriteWherePeersLead(const Results& results, std::ostream& out) {
  out << "\n## Where a peer leads\n\n";
  for (const Step& step : results.steps) {
    std::string leads;
    for (const auto& [what, quantity] :
         {std::pair{"CPU", &Sample::cpu}, std::pair{"wall", &Sample::wall}}) {
      const auto ours = Median(results, step, results.contenders[0].name, quantity);
      const auto best = BestPeer(results, step, quantity);
      if (ours && best && *ours > best->value)
        leads += fmt::format("{}{} takes {:.2f} of our {}", leads.empty() ? "" : ", ", best->name,
                             best->value / *ours, what);
    }
    if (leads.empty()) continue;
    const auto reason = kReasons.find(step.id);
    fmt::print(out, "- **{}**: {}.\n  {}\n", step.title, leads,
               reason == kReasons.end() ? "The reason is not known yet." : reason->second);
  }
}

void WritePeers(const Results& results, std::ostream& out) {
  out << "\n## Who is compared\n\n";
  for (const Contender& contender : results.contenders)
    fmt::print(out, "- {} {}\n", contender.name, contender.note);
  fmt::print(out,
             "- limit: what the format asks of any implementation. For a put, one MD5 pass by\n"
             "  {}, the data appended, the header rewritten and one flush a commit;\n"
             "  for the rest, one MD5 pass, or a copy.\n",
             OpenSSL_version(OPENSSL_VERSION));
}

constexpr const char* kHead = R"(# Performance

Written by `bench/run`, which builds the benchmarks and measures everything. `bench/run --quick`
takes a tenth of the blobs, prints the same page and leaves this file alone.

Seconds, medians of the rounds; lower is better. All stores are measured in one process: each does a
step before any of them does the next one, in an order that moves on. CPU is the user and system
time of the process, helper threads of a store included up to the end of the step. Every store
computes the MD5 key of what it puts, and every commit is flushed. A verified fetch or open compares
each blob with its key; Blobring always does. All data is random, and in the page cache when it is
read.
)";

}  // namespace

void WriteMarkdown(const Results& results, std::ostream& out) {
  out << kHead;
  WriteTable("CPU", results, &Sample::cpu, out);
  WriteTable("Wall", results, &Sample::wall, out);
  WriteTable("Bytes written for each byte put", results, &Sample::written, out);
  WriteWherePeersLead(results, out);
  WritePeers(results, out);
}

}  // namespace bench
