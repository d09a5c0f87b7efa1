// copy and sync.
#include <algorithm>

#include "tools/BatchWriter.h"
#include "tools/Commands.h"
#include "tools/look/Naming.h"

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
  uint64_t totalBytes = 0;
  for (const ViewedBlob* blob : blobs) totalBytes += blob->size;
  bool all = true;
  std::string unused;
  Buffer buffer;
  OpenStore to(target, Access::kChange);
  BatchWriter writer(to.store, unused, BatchWriter::WhenFull::kRepack);
  Progress progress("copying", blobs.size(), totalBytes);
  try {
    for (const ViewedBlob* blob : blobs) {
      progress.Advance(blob->size);
      if (SizeOf(to.store, blob->hash)) continue;
      std::string_view bytes;
      try {
        bytes = from.Read(*blob, buffer);
      } catch (const Fault& fault) {
        all = false;
        Say("{}", fault.what());
        continue;
      }
      writer.Add(bytes, blob->hash.text());
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
