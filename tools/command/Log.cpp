// log and diff.
#include <algorithm>
#include <filesystem>
#include <map>
#include <utility>

#include "tools/base/Interrupt.h"
#include "tools/base/Json.h"
#include "tools/command/Looking.h"
#include "tools/view/Naming.h"
#include "tools/work/Manifest.h"

namespace tool {
namespace {

namespace stdfs = std::filesystem;

void AddChanges(const StoreView& view, size_t journal, const format::Transaction& transaction,
                std::string& text) {
  format::VisitRecords(view.file(journal), transaction.BodyOffset(), transaction.BodyEnd(),
                       [&](const format::Record& record) {
                         if (consoleOptions.json) {
                           Json change = {{"type", "change"},
                                          {"transaction", transaction.start.transactionId},
                                          {"change", record.IsStore() ? "added" : "removed"},
                                          {"hash", HashOf(record).text()}};
                           if (record.IsStore()) change["size"] = record.size;
                           text += JsonLine(change);
                         } else if (record.IsStore()) {
                           text += fmt::format("  + {} {}\n", HashOf(record).text(), record.size);
                         } else {
                           text += fmt::format("  - {}\n", HashOf(record).text());
                         }
                         return true;
                       });
}

std::string TransactionLine(const format::Transaction& transaction, bool stat) {
  const std::optional<std::string> time = TimeOf(transaction.start.transactionId);
  if (consoleOptions.json) {
    Json object = {{"type", "transaction"},
                   {"id", transaction.start.transactionId},
                   {"time", nullptr},
                   {"offset", transaction.offset},
                   {"added", transaction.storeCount},
                   {"removed", transaction.deleteCount},
                   {"blob_bytes", transaction.blobBytes}};
    if (time) object["time"] = *time;
    return JsonLine(object);
  }
  const std::string line =
      fmt::format("{} {}", transaction.start.transactionId, time.value_or("-"));
  if (!stat)
    return fmt::format("{} +{} -{}\n", line, transaction.storeCount, transaction.deleteCount);
  return fmt::format("{}  {} added, {}; {} removed\n", line, Count(transaction.storeCount, "blob"),
                     HumanSize(transaction.blobBytes), transaction.deleteCount);
}

int64_t ParseId(const std::string& text) {
  size_t used = 0;
  int64_t id = 0;
  try {
    id = std::stoll(text, &used);
  } catch (const std::exception&) {
    used = 0;
  }
  if (text.empty() || used != text.size())
    throw UsageError("\"{}\" is no transaction id: wanted an integer", text);
  return id;
}

// What a store, a single file or a manifest has: hashes and sizes, if they are known.
std::map<blobring::Hash, std::optional<uint32_t>> ContentsOf(const std::string& path,
                                                             bool& damaged) {
  std::map<blobring::Hash, std::optional<uint32_t>> contents;
  std::error_code ignored;
  const bool isStore = stdfs::is_directory(path, ignored) ||
                       path.find(".pak") != std::string::npos ||
                       path.find(".jrn") != std::string::npos;
  if (!isStore) {
    for (const ManifestEntry& entry : ReadManifest(path)) contents[entry.hash] = std::nullopt;
    return contents;
  }
  const StoreView view({path, 0, {}, false});
  damaged = damaged || view.damaged();
  for (const ViewedBlob& blob : view.blobs())
    contents.emplace_hint(contents.end(), blob.hash, blob.size);
  return contents;
}

}  // namespace

ExitStatus Log(const LogOptions& options) {
  const StoreView view(options.at);
  const ExitStatus status = view.damaged() ? kFault : kSuccess;
  if (view.current().empty()) return status;
  const size_t journal = view.current().back();
  const std::optional<int64_t> since =
      options.since.empty() ? std::nullopt : std::optional(ParseId(options.since));
  std::vector<format::Transaction> transactions;
  WalkOptions walk;
  walk.digest = false;  // the view has done so
  const uint64_t end = view.walked(journal).end;
  walk.transaction = [&](const format::Transaction& transaction) {
    if (transaction.End() <= end && (!since || transaction.start.transactionId > *since))
      transactions.push_back(transaction);
  };
  Walk(view.file(journal), view.files()[journal].head, walk);
  std::reverse(transactions.begin(), transactions.end());
  std::string text;
  for (const format::Transaction& transaction : transactions) {
    ThrowIfInterrupted();
    text += TransactionLine(transaction, options.stat || options.patch);
    if (options.patch) AddChanges(view, journal, transaction, text);
    if (text.size() > kPrintAt) PrintText(std::exchange(text, {}));
  }
  PrintText(text);
  const bool isRepacked = view.current().size() == 2 && view.sequence() > 0;
  Inform("{} in {}{}", Count(transactions.size(), "transaction"), view.files()[journal].path,
         isRepacked ? fmt::format("; what came before its repack is in {}",
                                  view.files()[view.current().front()].path)
                    : "");
  return status;
}

ExitStatus Diff(const DiffOptions& options) {
  bool damaged = false;
  const auto a = ContentsOf(options.a, damaged);
  const auto b = ContentsOf(options.b, damaged);
  uint64_t onlyA = 0;
  uint64_t onlyB = 0;
  std::string text;
  const auto add = [&text](bool isInA, const auto& entry) {
    const auto& [hash, size] = entry;
    if (consoleOptions.json) {
      Json object = {{"type", "difference"}, {"only_in", isInA ? "a" : "b"}, {"hash", hash.text()}};
      if (size) object["size"] = *size;
      text += JsonLine(object);
    } else {
      text += fmt::format("{} {}{}\n", isInA ? '-' : '+', hash.text(),
                          size ? " " + std::to_string(*size) : "");
    }
  };
  auto inA = a.begin();
  auto inB = b.begin();
  while (inA != a.end() || inB != b.end()) {
    if (inB == b.end() || (inA != a.end() && inA->first < inB->first)) {
      ++onlyA;
      add(true, *inA++);
    } else if (inA == a.end() || inB->first < inA->first) {
      ++onlyB;
      add(false, *inB++);
    } else {
      ++inA;
      ++inB;
    }
  }
  PrintText(text);
  Inform("{} only in {}, {} only in {}", Count(onlyA, "blob"), options.a, onlyB, options.b);
  return damaged || onlyA + onlyB != 0 ? kFault : kSuccess;
}

}  // namespace tool
