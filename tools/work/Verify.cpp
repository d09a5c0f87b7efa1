// verify.
#include <map>

#include "tools/Commands.h"
#include "tools/Json.h"
#include "tools/Manifest.h"
#include "tools/StagedFile.h"
#include "tools/look/StoreView.h"

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

// The files that were verified as one checksum file: the digest of what follows, then their lines.
void WriteChecksumFile(const std::vector<ManifestEntry>& entries, const std::string& path,
                       bool force) {
  std::string lines;
  for (const ManifestEntry& entry : entries) lines += ManifestLine(entry);
  const blobring::Hash digest = blobring::Hash::of(std::as_bytes(std::span(lines)));
  Output out(path, force ? Existing::kReplace : Existing::kKeep);
  out.Write({reinterpret_cast<const char*>(digest.data()), format::kDigestSize});
  out.Write(lines);
  out.Finish();
}

}  // namespace

ExitStatus Verify(const VerifyOptions& options) {
  std::vector<ManifestEntry> entries;
  for (const std::string& path : options.manifests) {
    const std::vector<ManifestEntry> more = ReadManifest(path);
    entries.insert(entries.end(), more.begin(), more.end());
  }
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
  if (counts[Verdict::kDamaged] != 0 || view.damaged()) return kFault;
  if (counts[Verdict::kMissing] != 0 || entries.empty()) return kNothing;
  if (!options.write.empty()) WriteChecksumFile(entries, options.write, options.force);
  return kSuccess;
}

}  // namespace tool
