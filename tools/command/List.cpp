// ls.
#include <algorithm>

#include "tools/base/Console.h"
#include "tools/base/Json.h"
#include "tools/command/Commands.h"
#include "tools/view/JsonObjects.h"
#include "tools/view/Naming.h"
#include "tools/view/StoreView.h"

namespace tool {
namespace {

struct ListOptions {
  StoreOptions at;
  std::vector<std::string> hashes;  // beginnings of hashes; all blobs without any
  bool longForm = false;
  std::string sort = "hash";  // or "size", "transaction"
};

std::vector<const ViewedBlob*> Chosen(StoreView& view, const ListOptions& options,
                                      const std::vector<std::string>& hashes) {
  std::vector<const ViewedBlob*> blobs;
  if (options.hashes.empty())
    for (const ViewedBlob& blob : view.blobs()) blobs.push_back(&blob);
  for (const std::string& digits : hashes) {
    const std::vector<const ViewedBlob*> found = Matching(view, digits);
    if (found.empty() && view.depth() != Depth::kAll) {
      view.ReadAll();
      return Chosen(view, options, hashes);
    }
    if (found.empty()) throw NothingFound("{} has no blob {}", view.path(), digits);
    blobs.insert(blobs.end(), found.begin(), found.end());
  }
  if (options.sort == "size")
    std::stable_sort(blobs.begin(), blobs.end(),
                     [](const auto* a, const auto* b) { return a->size > b->size; });
  if (options.sort == "transaction")
    std::stable_sort(blobs.begin(), blobs.end(), [](const auto* a, const auto* b) {
      return a->transactionId > b->transactionId;
    });
  return blobs;
}

// Prints hashes. Throws NothingFound if no blob begins with one that is asked for.
ExitStatus List(const ListOptions& options) {
  const std::vector<std::string> hashes = HashArguments(options.hashes);
  StoreView view(options.at, Depth::kRecords);
  std::string text;
  for (const ViewedBlob* blob : Chosen(view, options, hashes)) {
    const std::string hash = blob->hash.text();
    if (consoleOptions.json)
      text += JsonLine(BlobObject(view, *blob));
    else if (options.longForm)
      text += fmt::format("{} {:>10} {}\n", hash, blob->size, blob->transactionId);
    else
      text += hash + "\n";
  }
  PrintText(text);
  return view.damaged() ? kFault : kSuccess;
}

}  // namespace

void AddList(CommandLine& line) {
  auto [command, options] = line.Add(
      Group::kLook,
      {"ls", "print the hashes of all blobs",
       "Arguments choose the blobs whose hashes begin with them. With --long: hash, bytes, "
       "and the id of the transaction that stored it. Reads the list of the blobs, not their data: "
       "check tells whether they are sound.",
       "blobring ls -l --sort size /data/store"},
      List);
  CommandLine::AddStore(command, options.at, Access::kLook);
  command.add_option("HASH", options.hashes, "beginnings of hashes; - for standard input");
  command.add_flag("-l,--long", options.longForm, "print sizes and transactions as well");
  command.add_option("--sort", options.sort, "the order: largest or newest first")
      ->type_name("BY")
      ->check(CLI::IsMember({"hash", "size", "transaction"}));
}

}  // namespace tool
