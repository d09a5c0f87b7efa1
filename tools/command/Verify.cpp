// verify.
#include <map>

#include "tools/base/Console.h"
#include "tools/base/Json.h"
#include "tools/base/StagedFile.h"
#include "tools/command/Commands.h"
#include "tools/view/StoreView.h"
#include "tools/work/Manifest.h"

namespace tool {
namespace {

struct VerifyOptions {
  StoreOptions at;
  std::vector<std::string> manifests;  // and checksum files, see ReadChecksums
  std::string write;                   // a checksum file of all that was verified, if it is sound
  bool force = false;
};

enum class Verdict { kOk, kMissing, kDamaged };

std::string_view WordFor(Verdict verdict) {
  return verdict == Verdict::kOk ? "ok" : verdict == Verdict::kMissing ? "missing" : "damaged";
}

Verdict Judge(const StoreView& view, const blobring::Hash& hash) {
  const ViewedBlob* blob = view.Find(hash);
  if (blob == nullptr) return Verdict::kMissing;
  try {
    view.Read(*blob, [](std::string_view) {});
  } catch (const DamagedBlob& fault) {
    SayDamage("{}", fault.what());
    return Verdict::kDamaged;
  }
  return Verdict::kOk;
}

// Of each blob that is listed. One of several names is read once.
std::map<blobring::Hash, Verdict> JudgeAll(const StoreView& view,
                                           const std::vector<ManifestEntry>& entries) {
  std::map<blobring::Hash, Verdict> verdicts;
  Progress progress("verifying", entries.size());
  for (const ManifestEntry& entry : entries) {
    progress.Advance(0);
    const auto [at, isNew] = verdicts.try_emplace(entry.hash);
    if (isNew) at->second = Judge(view, entry.hash);
  }
  return verdicts;
}

// Whether the store has what manifests list, each blob compared with its hash. Returns kFault for
// damage, kNothing if something is missing.
ExitStatus Verify(const VerifyOptions& options) {
  std::vector<ManifestEntry> entries;
  for (const std::string& path : options.manifests) {
    const std::vector<ManifestEntry> more = ReadChecksums(path);
    entries.insert(entries.end(), more.begin(), more.end());
  }
  std::optional<Output> out;
  if (!options.write.empty())
    out.emplace(options.write, options.force ? Existing::kReplace : Existing::kKeep);
  StoreView view(options.at);
  const auto verdicts = view.Steadily([&] { return JudgeAll(view, entries); });
  std::map<Verdict, uint64_t> counts;
  std::string text;
  for (const ManifestEntry& entry : entries) {
    const Verdict verdict = verdicts.at(entry.hash);
    ++counts[verdict];
    if (consoleOptions.json)
      text += JsonLine({{"type", "verified"},
                        {"name", entry.name},
                        {"hash", entry.hash.text()},
                        {"verdict", WordFor(verdict)}});
    else if (verdict != Verdict::kOk || consoleOptions.verbose)
      text += fmt::format(
          "{}: {}, {}\n", entry.name,
          verdict == Verdict::kOk ? std::string(WordFor(verdict)) : Red(WordFor(verdict)),
          entry.hash.text());
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

}  // namespace

void AddVerify(CommandLine& line) {
  auto [command, options] =
      line.Add(Group::kLook,
               {"verify", "compare a store with manifests",
                "Takes the lists of md5sum(1), with --tag or without, and checksum files: the 16 "
                "bytes of an MD5 digest, then what they are the digest of. That is such a list, "
                "as --write makes it, or else one blob. Names what is missing or damaged. With "
                "--write, what was verified becomes a checksum file if all of it is sound.",
                "blobring verify /data/store photos.md5"},
               Verify);
  CommandLine::AddStore(command, options.at, Access::kLook);
  command.add_option("MANIFEST", options.manifests, "the lists; - for standard input")->required();
  command.add_option("--write", options.write, "make a checksum file")->type_name("FILE");
  command.add_flag("--force", options.force, "replace a checksum file that exists");
}

}  // namespace tool
