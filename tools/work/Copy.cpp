// copy and sync.
#include <algorithm>

#include "tools/BatchWriter.h"
#include "tools/Commands.h"
#include "tools/Interrupt.h"
#include "tools/look/Naming.h"

namespace tool {
namespace {

// In the order in which they lie in the source, so that it is read from front to back.
std::vector<const ViewedBlob*> InFileOrder(std::vector<const ViewedBlob*> blobs) {
  std::sort(blobs.begin(), blobs.end(), [](const auto* a, const auto* b) {
    return std::tie(a->file, a->offset) < std::tie(b->file, b->offset);
  });
  blobs.erase(std::unique(blobs.begin(), blobs.end()), blobs.end());
  return blobs;
}

std::vector<const ViewedBlob*> Chosen(const StoreView& from, const CopyOptions& options) {
  std::vector<const ViewedBlob*> blobs;
  for (const std::string& name : HashArguments(options.hashes)) blobs.push_back(&Named(from, name));
  if (options.hashes.empty())
    for (const ViewedBlob& blob : from.blobs()) blobs.push_back(&blob);
  return InFileOrder(std::move(blobs));
}

ExitStatus SayWhatIsMissing(const std::vector<const ViewedBlob*>& blobs,
                            const CopyOptions& options) {
  const StoreView to({options.to.directory, 0, {}, false});
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
  Inform("{}, {}, would be copied to {}", Count(count, "blob"), HumanSize(bytes),
         options.to.directory);
  return kSuccess;
}

}  // namespace

ExitStatus Copy(const CopyOptions& options) {
  const StoreView from({options.from, 0, {}, false});
  const std::vector<const ViewedBlob*> blobs = Chosen(from, options);
  if (options.dryRun) return SayWhatIsMissing(blobs, options);
  uint64_t totalBytes = 0;
  for (const ViewedBlob* blob : blobs) totalBytes += blob->size;
  uint64_t failureCount = 0;
  std::string unused;
  Buffer buffer;
  OpenStore to(options.to, Access::kChange);
  BatchWriter writer(to.store, unused, BatchWriter::WhenFull::kRepack);
  Progress progress("copying", blobs.size(), totalBytes);
  try {
    for (const ViewedBlob* blob : blobs) {
      progress.Advance(blob->size);
      if (SizeOf(to.store, blob->hash)) continue;
      try {
        writer.Add(from.Read(*blob, buffer), blob->hash.text());
      } catch (const Fault& fault) {
        ++failureCount;
        Say("{}", fault.what());
      }
    }
    writer.Commit();
  } catch (const Interrupted&) {
    writer.Commit();
    throw Interrupted("interrupted: {} copied, {}; run it again to go on",
                      Count(writer.committedCount(), "blob"), HumanSize(writer.committedBytes()));
  }
  Inform("{} copied, {}; {} had the others already", Count(writer.committedCount(), "blob"),
         HumanSize(writer.committedBytes()), options.to.directory);
  return failureCount == 0 && !from.damaged() ? kSuccess : kFault;
}

}  // namespace tool
