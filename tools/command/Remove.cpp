// rm.
#include <set>
#include <vector>

#include "tools/base/Console.h"
#include "tools/base/Interrupt.h"
#include "tools/base/Json.h"
#include "tools/command/Commands.h"
#include "tools/view/Naming.h"
#include "tools/view/StoreView.h"
#include "tools/work/BatchWriter.h"
#include "tools/work/Manifest.h"
#include "tools/work/Open.h"

namespace tool {
namespace {

struct RemoveOptions {
  StoreOptions at;
  std::vector<std::string> hashes;  // "-": those of standard input
  std::vector<std::string> notIn;   // manifests: delete what none of them lists
  bool dryRun = false;              // print the hashes, delete nothing
};

NamedBlobs NotIn(const StoreView& view, const std::vector<std::string>& manifests) {
  std::set<blobring::Hash> listed;
  for (const std::string& path : manifests) {
    const std::vector<ManifestEntry> entries = ReadManifest(path);
    if (entries.empty())
      throw UsageError("{} lists no file: that would delete what it is to keep", path);
    for (const ManifestEntry& entry : entries) listed.insert(entry.hash);
  }
  NamedBlobs chosen;
  for (const ViewedBlob& blob : view.blobs())
    if (!listed.contains(blob.hash)) chosen.blobs.push_back(&blob);
  if (!view.blobs().empty() && chosen.blobs.size() == view.blobs().size())
    throw UsageError("{} has nothing of what is listed, so all of it would go; nothing was changed",
                     view.path());
  return chosen;
}

void Erase(const std::vector<const ViewedBlob*>& blobs, blobring::Store& store) {
  blobring::Transaction change(store, TransactionId());
  std::vector<blobring::Hash> hashes;
  hashes.reserve(blobs.size());
  for (const ViewedBlob* blob : blobs) hashes.push_back(blob->hash);
  store.eraseMany(hashes);
  if (IsInterrupted()) throw Interrupted("interrupted: nothing was deleted");
  change.commit();
}

// Deletes blobs in one transaction. Those that the store does not have are named; the others go.
// Returns kNothing if any is not there, or none is to go. Throws UsageError, with nothing changed,
// for a manifest that lists nothing, or nothing that the store has: it is not the one that was
// meant.
ExitStatus Remove(const RemoveOptions& options) {
  if (options.hashes.empty() == options.notIn.empty())
    throw UsageError("wanted either HASH or --not-in MANIFEST");
  LayoutOf(options.at, Access::kChange);
  const std::vector<std::string> names = HashArguments(options.hashes);
  const StoreView view({options.at.directory});
  const NamedBlobs chosen = options.notIn.empty() ? Named(view, names) : NotIn(view, options.notIn);
  uint64_t bytes = 0;
  for (const ViewedBlob* blob : chosen.blobs) bytes += blob->size;
  const ExitStatus status = chosen.allThere && !chosen.blobs.empty() ? kSuccess : kNothing;
  std::string text;
  for (const ViewedBlob* blob : chosen.blobs) {
    const std::string hash = blob->hash.text();
    if (consoleOptions.json)
      text += JsonLine(
          {{"type", "removed"}, {"hash", hash}, {"size", blob->size}, {"dry_run", options.dryRun}});
    else if (options.dryRun)
      text += hash + "\n";
  }
  if (options.dryRun) {
    PrintText(text);
    Inform("{} would be deleted, {}", Count(chosen.blobs.size(), "blob"), HumanSize(bytes));
    return status;
  }
  size_t slotCount = 0;
  {
    OpenStore open(options.at, Access::kChange);
    slotCount = open.layout.slotCount();
    if (!chosen.blobs.empty()) Erase(chosen.blobs, open.store);
  }
  PrintText(text);
  Inform("{} deleted, {}; `blobring repack` gives the space back{}",
         Count(chosen.blobs.size(), "blob"), HumanSize(bytes),
         slotCount == 1 ? "" : fmt::format(" once it has gone through all {} slots", slotCount));
  return status;
}

}  // namespace

void AddRemove(CommandLine& line) {
  auto [command, options] = line.Add(
      Group::kWork,
      {"rm", "delete blobs",
       "All in one transaction. The space is free once `blobring repack` has gone through "
       "all slots. A manifest that lists nothing, or nothing that the store has, is refused.",
       "blobring rm /data/store 591785b794601e212b260e25925636fd\n"
       "blobring rm --dry-run /data/store --not-in photos.md5 letters.md5"},
      Remove);
  CommandLine::AddStore(command, options.at, Access::kChange);
  CommandLine::AddHashes(command, options.hashes);
  command
      .add_option("--not-in", options.notIn,
                  "delete every blob that none of these manifests lists; last on the line")
      ->type_name("MANIFEST");
  command.add_flag("-n,--dry-run", options.dryRun, "print the hashes, delete nothing");
}

}  // namespace tool
