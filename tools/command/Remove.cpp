// rm.
#include <set>
#include <vector>

#include "tools/base/Interrupt.h"
#include "tools/command/Commands.h"
#include "tools/view/Naming.h"
#include "tools/work/BatchWriter.h"
#include "tools/work/Manifest.h"

namespace tool {
namespace {

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

}  // namespace

ExitStatus Remove(const RemoveOptions& options) {
  if (options.hashes.empty() == options.notIn.empty())
    throw UsageError("wanted either HASH or --not-in MANIFEST");
  LayoutOf(options.at, Access::kChange);
  const std::vector<std::string> names = HashArguments(options.hashes);
  const StoreView view({options.at.directory, 0, {}, false});
  const NamedBlobs chosen = options.notIn.empty() ? Named(view, names) : NotIn(view, options.notIn);
  uint64_t bytes = 0;
  for (const ViewedBlob* blob : chosen.blobs) bytes += blob->size;
  const ExitStatus status = chosen.allThere && !chosen.blobs.empty() ? kSuccess : kNothing;
  if (options.dryRun) {
    std::string text;
    for (const ViewedBlob* blob : chosen.blobs) text += blob->hash.text() + "\n";
    PrintText(text);
    Inform("{} would be deleted, {}", Count(chosen.blobs.size(), "blob"), HumanSize(bytes));
    return status;
  }
  OpenStore open(options.at, Access::kChange);
  if (!chosen.blobs.empty()) {
    blobring::Transaction change(open.store, TransactionId());
    std::vector<blobring::Hash> hashes;
    for (const ViewedBlob* blob : chosen.blobs) hashes.push_back(blob->hash);
    open.store.eraseMany(hashes);
    if (IsInterrupted()) throw Interrupted("interrupted: nothing was deleted");
    change.commit();
  }
  const size_t slotCount = open.layout.slotCount();
  Inform("{} deleted, {}; `blobring repack` gives the space back{}",
         Count(chosen.blobs.size(), "blob"), HumanSize(bytes),
         slotCount == 1 ? "" : fmt::format(" once it has gone through all {} slots", slotCount));
  return status;
}

}  // namespace tool
