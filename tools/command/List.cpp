// ls, get, cat.
#include <algorithm>
#include <iostream>

#include "tools/base/Interrupt.h"
#include "tools/base/Json.h"
#include "tools/base/StagedFile.h"
#include "tools/command/Looking.h"
#include "tools/view/Naming.h"

namespace tool {
namespace {

std::vector<const ViewedBlob*> Chosen(const StoreView& view, const ListOptions& options) {
  std::vector<const ViewedBlob*> blobs;
  if (options.hashes.empty())
    for (const ViewedBlob& blob : view.blobs()) blobs.push_back(&blob);
  for (const std::string& digits : HashArguments(options.hashes)) {
    const std::vector<const ViewedBlob*> found = Matching(view, digits);
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

// As git's cat-file --batch has it: "HASH SIZE", the bytes, a newline. What is not there, ambiguous
// or damaged is said so behind the word that was asked for.
ExitStatus AnswerBatch(const StoreView& view) {
  Buffer buffer;
  bool sound = !view.damaged();
  for (std::string line; std::getline(std::cin, line); ThrowIfInterrupted()) {
    std::string answer;
    try {
      const ViewedBlob& blob = Named(view, line);
      const std::string_view bytes = view.Read(blob, buffer);
      answer = fmt::format("{} {}\n", blob.hash.text(), bytes.size());
      answer += bytes;
    } catch (const NothingFound&) {
      answer = line + " missing";
    } catch (const UsageError& error) {
      answer = line + (std::string_view(error.what()).find("ambiguous") == std::string_view::npos
                           ? " missing"
                           : " ambiguous");
    } catch (const Fault& fault) {
      Say("{}", fault.what());
      answer = line + " damaged";
      sound = false;
    }
    WriteAll(STDOUT_FILENO, answer + "\n", "to standard output");
  }
  return sound ? kSuccess : kFault;
}

}  // namespace

ExitStatus List(const ListOptions& options) {
  const StoreView view(options.at);
  std::string text;
  for (const ViewedBlob* blob : Chosen(view, options)) {
    const std::string hash = blob->hash.text();
    if (consoleOptions.json)
      text += JsonLine({{"type", "blob"},
                        {"hash", hash},
                        {"size", blob->size},
                        {"transaction", blob->transactionId},
                        {"file", view.files()[blob->file].path},
                        {"offset", blob->offset}});
    else if (options.longForm)
      text += fmt::format("{} {:>10} {}\n", hash, blob->size, blob->transactionId);
    else
      text += hash + "\n";
  }
  PrintText(text);
  return view.damaged() ? kFault : kSuccess;
}

ExitStatus Get(const GetOptions& options) {
  if (options.batch != options.hashes.empty()) throw UsageError("wanted either HASH or --batch");
  const std::vector<std::string> names = HashArguments(options.hashes);
  const StoreView view(options.at);
  if (options.batch) return AnswerBatch(view);
  Output out(options.output, Existing::kReplace);
  Buffer buffer;
  bool sound = !view.damaged();
  bool allThere = true;
  bool allGood = true;
  std::vector<const ViewedBlob*> blobs;
  for (const std::string& name : names) {
    try {
      blobs.push_back(&Named(view, name));
    } catch (const NothingFound& nothing) {
      Say("{}", nothing.what());
      allThere = false;
    }
  }
  for (std::span<const ViewedBlob* const> rest = blobs; !rest.empty(); ThrowIfInterrupted())
    for (const ReadBlob& read : view.ReadSome(rest, buffer)) {
      if (!read.fault) out.Write(read.bytes);
      if (!read.fault) continue;
      Say("{}", read.fault->what());
      allGood = false;
    }
  if (allThere && allGood) out.Finish();
  if (!allGood || !sound) return kFault;
  return allThere ? kSuccess : kNothing;
}

}  // namespace tool
