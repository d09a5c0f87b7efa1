// verify.
#include <map>

#include "tools/base/Json.h"
#include "tools/base/StagedFile.h"
#include "tools/command/Commands.h"
#include "tools/view/StoreView.h"
#include "tools/work/Manifest.h"

namespace tool {
namespace {

enum class Verdict { kOk, kMissing, kDamaged };

std::string_view WordFor(Verdict verdict) {
  return verdict == Verdict::kOk ? "ok" : verdict == Verdict::kMissing ? "missing" : "damaged";
}

Verdict Judge(const StoreView& view, const blobring::Hash& hash, Buffer& buffer) {
  const ViewedBlob* blob = view.Find(hash);
  if (blob == nullptr) return Verdict::kMissing;
  try {
    view.Read(*blob, buffer);
  } catch (const Fault& fault) {
    Say("{}", fault.what());
    return Verdict::kDamaged;
  }
  return Verdict::kOk;
}

}  // namespace

ExitStatus Verify(const VerifyOptions& options) {
  std::vector<ManifestEntry> entries;
  for (const std::string& path : options.manifests) {
    const std::vector<ManifestEntry> more = ReadChecksums(path);
    entries.insert(entries.end(), more.begin(), more.end());
  }
  std::optional<Output> out;
  if (!options.write.empty())
    out.emplace(options.write, options.force ? Existing::kReplace : Existing::kKeep);
  const StoreView view(options.at);
  std::map<blobring::Hash, Verdict> verdicts;  // a blob of several names is read once
  std::map<Verdict, uint64_t> counts;
  std::string text;
  Buffer buffer;
  Progress progress("verifying", entries.size());
  for (const ManifestEntry& entry : entries) {
    progress.Advance(0);
    const auto [at, isNew] = verdicts.try_emplace(entry.hash);
    if (isNew) at->second = Judge(view, entry.hash, buffer);
    const Verdict verdict = at->second;
    ++counts[verdict];
    if (consoleOptions.json)
      text += JsonLine({{"type", "verified"},
                        {"name", entry.name},
                        {"hash", entry.hash.text()},
                        {"verdict", WordFor(verdict)}});
    else if (verdict != Verdict::kOk || options.verbose)
      text += fmt::format("{}: {}, {}\n", entry.name, WordFor(verdict), entry.hash.text());
  }
  PrintText(text);
  Inform("verified {}: {} ok, {} missing, {} damaged", Count(entries.size(), "file"),
         counts[Verdict::kOk], counts[Verdict::kMissing], counts[Verdict::kDamaged]);
  const bool sound = counts[Verdict::kDamaged] == 0 && !view.damaged();
  const bool all = counts[Verdict::kMissing] == 0 && !entries.empty();
  if (out && sound && all) {
    out->Write(ChecksumFile(entries));
    out->Finish();
  } else if (out) {
    Say("{} was not written: not all is sound", options.write);
  }
  return !sound ? kFault : all ? kSuccess : kNothing;
}

}  // namespace tool
