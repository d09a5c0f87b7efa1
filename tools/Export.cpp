#include "tools/Export.h"

#include <fmt/format.h>

#include <optional>
#include <vector>

#include "tools/Console.h"
#include "tools/Manifest.h"
#include "tools/TargetTree.h"

namespace tool {
namespace {

// Restores one file. Returns its size, or nothing after saying why not.
std::optional<uint64_t> Restore(const ManifestEntry& entry, Existing existing,
                                const OpenStore& open, TargetTree& target, Buffer& buffer) {
  std::string what = entry.name + ": ";
  try {
    const Bytes blob = open.Fetch(entry.hash, buffer);
    what.clear();  // the target's messages name the file themselves
    target.Write(entry.name, blob, existing);
    return blob.size();
  } catch (const Fault& fault) {
    Say(what + fault.what());
    return std::nullopt;
  }
}

}  // namespace

ExitStatus Export(const StoreOptions& at, const ExportOptions& options) {
  const std::vector<ManifestEntry> entries = ReadManifest(options.manifest);
  for (const ManifestEntry& entry : entries)
    if (!TargetTree::IsSafeName(entry.name))
      throw UsageError(fmt::format(
          "{} names \"{}\", which is not a file below the directory to restore into; nothing "
          "was written",
          options.manifest, entry.name));

  const OpenStore open(at, Access::kLook);
  TargetTree target(options.directory);
  const Existing existing = options.force ? Existing::kReplace : Existing::kKeep;
  Buffer buffer;
  uint64_t byteCount = 0;
  uint64_t failureCount = 0;
  Progress progress("restoring", entries.size(), 0);
  for (const ManifestEntry& entry : entries) {
    const std::optional<uint64_t> size = Restore(entry, existing, open, target, buffer);
    if (!size) ++failureCount;
    byteCount += size.value_or(0);
    progress.Advance(size.value_or(0));
  }
  target.Sync();
  Say(fmt::format("restored {}, {}, in {:.1f} s", Count(entries.size() - failureCount, "file"),
                  HumanSize(byteCount), progress.Elapsed()));
  if (failureCount == 0) return open.damaged ? kFault : kSuccess;
  Say(fmt::format("{} not restored{}", Count(failureCount, "file"),
                  options.force ? "" : "; --force replaces files that exist"));
  return kFault;
}

}  // namespace tool
