// log.
#include <algorithm>
#include <utility>

#include "tools/base/Console.h"
#include "tools/base/Interrupt.h"
#include "tools/base/Json.h"
#include "tools/command/Commands.h"
#include "tools/view/Naming.h"
#include "tools/view/StoreView.h"

namespace tool {
namespace {

struct LogOptions {
  StoreOptions at;
  bool stat = false;
  bool patch = false;
  size_t most = 0;               // 0: all
  std::optional<int64_t> since;  // transaction id: only larger ones
};

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

// Those of the journal that are to be printed, newest first.
std::vector<format::Transaction> TransactionsOf(const StoreView& view, const LogOptions& options) {
  std::vector<format::Transaction> transactions;
  if (view.current().empty()) return transactions;
  const size_t journal = view.current().back();
  WalkOptions walk;
  walk.digests = Digests::kIgnore;  // the view has done so
  const uint64_t end = view.walked(journal).end;
  walk.transaction = [&](const format::Transaction& transaction) {
    if (transaction.End() <= end &&
        (!options.since || transaction.start.transactionId > *options.since))
      transactions.push_back(transaction);
  };
  Walk(view.file(journal), view.files()[journal].status, walk);
  view.RequireSteady();
  std::reverse(transactions.begin(), transactions.end());
  return transactions;
}

ExitStatus Log(const LogOptions& options) {
  StoreView view(options.at);
  auto transactions = view.Steadily([&] { return TransactionsOf(view, options); });
  const ExitStatus status = view.damaged() ? kFault : kSuccess;
  if (view.current().empty()) return status;
  const size_t journal = view.current().back();
  const size_t count = transactions.size();
  if (options.most != 0) transactions.resize(std::min(options.most, count));
  std::string text;
  const auto print = [&] {
    if (options.patch) view.RequireSteady();
    PrintText(std::exchange(text, {}));
  };
  for (const format::Transaction& transaction : transactions) {
    ThrowIfInterrupted();
    text += TransactionLine(transaction, options.stat || options.patch);
    if (options.patch) AddChanges(view, journal, transaction, text);
    if (text.size() > kPrintAt) print();
  }
  print();
  const bool isRepacked = view.current().size() == 2 && view.sequence() > 0;
  Inform("{} in {}{}", Count(count, "transaction"), view.files()[journal].path,
         isRepacked ? fmt::format("; what came before its repack is in {}",
                                  view.files()[view.current().front()].path)
                    : "");
  return status;
}

}  // namespace

void AddLog(CommandLine& line) {
  auto [command, options] =
      line.Add(Group::kLook,
               {"log", "print the transactions of the journal, newest first",
                "A repack moves what it finds into the pack, as one transaction; the journal "
                "begins again after it.",
                "blobring log --stat /data/store"},
               Log);
  CommandLine::AddStore(command, options.at, Access::kLook);
  command.add_flag("--stat", options.stat, "how much each added and removed");
  command.add_flag("-p,--patch", options.patch, "what each added (+) and removed (-)");
  command.add_option("-n,--max-count", options.most, "only the newest")->type_name("N");
  command.add_option("--since", options.since, "only transactions with a larger id")
      ->type_name("TX");
}

}  // namespace tool
