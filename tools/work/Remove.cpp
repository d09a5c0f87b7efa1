// rm.
#include <set>

#include "tools/BatchWriter.h"
#include "tools/Commands.h"
#include "tools/Interrupt.h"
#include "tools/Manifest.h"
#include "tools/look/Naming.h"

namespace tool {
namespace {

struct Chosen {
  std::vector<const ViewedBlob*> blobs;
  bool allThere = true;
};

Chosen ByName(const StoreView& view, const std::vector<std::string>& names) {
  Chosen chosen;
  std::set<const ViewedBlob*> unique;
  for (const std::string& name : names) {
    try {
      unique.insert(&Named(view, name));
    } catch (const NothingFound& nothing) {
      chosen.allThere = false;
      Say("{}", nothing.what());
    }
  }
  chosen.blobs.assign(unique.begin(), unique.end());
  return chosen;
}

Chosen NotIn(const StoreView& view, const std::vector<std::string>& manifests) {
  std::set<blobring::Hash> listed;
  for (const std::string& path : manifests) {
    const std::vector<ManifestEntry> entries = ReadManifest(path);
    if (entries.empty())
      throw UsageError("{} lists no file: that would delete what it is to keep", path);
    for (const ManifestEntry& entry : entries) listed.insert(entry.hash);
  }
  Chosen chosen;
  for (const ViewedBlob& blob : view.blobs())
    if (!listed.contains(blob.hash)) chosen.blobs.push_back(&blob);
  return chosen;
}

}  // namespace

ExitStatus Remove(const RemoveOptions& options) {
  if (options.hashes.empty() == options.notIn.empty())
    throw UsageError("wanted either HASH or --not-in MANIFEST");
  LayoutOf(options.at, Access::kChange);
  const std::vector<std::string> names = HashArguments(options.hashes);
  const StoreView view({options.at.directory, 0, {}, false});
  const Chosen chosen = options.notIn.empty() ? ByName(view, names) : NotIn(view, options.notIn);
  uint64_t bytes = 0;
  for (const ViewedBlob* blob : chosen.blobs) bytes += blob->size;
  if (options.dryRun) {
    std::string text;
    for (const ViewedBlob* blob : chosen.blobs) text += blob->hash.text() + "\n";
    PrintText(text);
    Inform("{} would be deleted, {}", Count(chosen.blobs.size(), "blob"), HumanSize(bytes));
    return chosen.allThere && !chosen.blobs.empty() ? kSuccess : kNothing;
  }
  OpenStore open(options.at, Access::kChange);
  if (!chosen.blobs.empty()) {
    Progress progress("deleting", chosen.blobs.size());
    blobring::Transaction change(open.store, TransactionId());
    for (const ViewedBlob* blob : chosen.blobs) {
      open.store.erase(blob->hash);
      progress.Advance(0);
    }
    change.commit();
  }
  const size_t slotCount = open.layout.slotCount();
  Inform("{} deleted, {}; `blobring repack` gives the space back{}",
         Count(chosen.blobs.size(), "blob"), HumanSize(bytes),
         slotCount == 1 ? "" : fmt::format(" once it has gone through all {} slots", slotCount));
  return chosen.allThere && !chosen.blobs.empty() ? kSuccess : kNothing;
}

}  // namespace tool
