// copy and sync.
#include <algorithm>

#include "tools/command/Commands.h"
#include "tools/view/Naming.h"
#include "tools/work/BatchWriter.h"

namespace tool {
namespace {

NamedBlobs Chosen(const StoreView& from, const std::vector<std::string>& names) {
  NamedBlobs chosen = Named(from, names);
  if (names.empty())
    for (const ViewedBlob& blob : from.blobs()) chosen.blobs.push_back(&blob);
  // As they lie in the source, so that it is read from front to back.
  std::sort(chosen.blobs.begin(), chosen.blobs.end(), [](const auto* a, const auto* b) {
    return std::tie(a->file, a->offset) < std::tie(b->file, b->offset);
  });
  return chosen;
}

// Returns whether the target is sound.
bool SayWhatIsMissing(const std::vector<const ViewedBlob*>& blobs, const StoreOptions& target) {
  const StoreView to({target.directory, 0, {}, false});
  std::string text;
  uint64_t bytes = 0;
  uint64_t count = 0;
  for (const ViewedBlob* blob : blobs) {
    if (to.Find(blob->hash) != nullptr) continue;
    text += blob->hash.text() + "\n";
    bytes += blob->size;
    ++count;
  }
  PrintText(text);
  Inform("{}, {}, would be copied to {}", Count(count, "blob"), HumanSize(bytes), to.path());
  return !to.damaged();
}

// Returns whether all could be read.
bool CopyBlobs(const StoreView& from, const std::vector<const ViewedBlob*>& blobs,
               const StoreOptions& target) {
  bool all = true;
  std::string unused;
  Buffer buffer;
  OpenStore to(target, Access::kChange);
  BatchWriter writer(to.store, unused, BatchWriter::WhenFull::kRepack);
  std::vector<const ViewedBlob*> absent;
  uint64_t bytes = 0;
  for (const ViewedBlob* blob : blobs) {
    if (SizeOf(to.store, blob->hash)) continue;
    absent.push_back(blob);
    bytes += blob->size;
  }
  Progress progress("copying", absent.size(), bytes);
  try {
    for (std::span<const ViewedBlob* const> rest = absent; !rest.empty();) {
      std::vector<BatchWriter::Item> items;
      for (const ReadBlob& read : from.ReadSome(rest, buffer)) {
        progress.Advance(read.blob->size);
        if (!read.fault) items.push_back({read.bytes, read.blob->hash.text()});
        if (!read.fault) continue;
        all = false;
        Say("{}", read.fault->what());
      }
      writer.AddMany(items, [](const auto&, const auto&) {});
    }
    writer.Commit();
  } catch (const Interrupted&) {
    writer.CommitInterrupted();
  }
  Inform("{} copied, {}; {} had the others already", Count(writer.committedCount(), "blob"),
         HumanSize(writer.committedBytes()), target.directory);
  return all;
}

}  // namespace

ExitStatus Copy(const CopyOptions& options) {
  LayoutOf(options.to, Access::kChange);  // before the source is read
  const std::vector<std::string> names = HashArguments(options.hashes);
  const StoreView from({options.from, 0, {}, false});
  const NamedBlobs chosen = Chosen(from, names);
  const bool sound = options.dryRun ? SayWhatIsMissing(chosen.blobs, options.to)
                                    : CopyBlobs(from, chosen.blobs, options.to);
  if (!sound || from.damaged()) return kFault;
  return chosen.allThere ? kSuccess : kNothing;
}

}  // namespace tool
