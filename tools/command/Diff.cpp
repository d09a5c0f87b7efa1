// diff.
#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>

#include "tools/base/Console.h"
#include "tools/base/Json.h"
#include "tools/command/Commands.h"
#include "tools/view/StoreView.h"
#include "tools/work/Manifest.h"

namespace tool {
namespace {

struct DiffOptions {
  std::string a;
  std::string b;  // each a store, a pack or journal, or a manifest
};

// What a store, a single file or a manifest has: hashes and sizes, if they are known.
std::map<blobring::Hash, std::optional<uint32_t>> ContentsOf(const std::string& path,
                                                             bool& damaged) {
  std::map<blobring::Hash, std::optional<uint32_t>> contents;
  std::error_code ignored;
  const std::string name = std::filesystem::path(path).filename().string();
  const bool isStore = std::filesystem::is_directory(path, ignored) || name.ends_with(".pak") ||
                       name.ends_with(".jrn") || format::FileName::Parse(name);
  if (!isStore) {
    for (const ManifestEntry& entry : ReadManifest(path)) contents[entry.hash] = std::nullopt;
    return contents;
  }
  const StoreView view({path});
  damaged = damaged || view.damaged();
  for (const ViewedBlob& blob : view.blobs())
    contents.emplace_hint(contents.end(), blob.hash, blob.size);
  return contents;
}

// Prints what only one of the two has. Returns kFault if there is anything.
ExitStatus Diff(const DiffOptions& options) {
  bool damaged = false;
  const auto a = ContentsOf(options.a, damaged);
  const auto b = ContentsOf(options.b, damaged);
  uint64_t onlyA = 0;
  uint64_t onlyB = 0;
  std::string text;
  std::vector<std::pair<blobring::Hash, std::optional<uint32_t>>> differing;
  std::set_symmetric_difference(a.begin(), a.end(), b.begin(), b.end(),
                                std::back_inserter(differing), a.value_comp());
  for (const auto& [hash, size] : differing) {
    const bool isInA = a.contains(hash);
    ++(isInA ? onlyA : onlyB);
    if (consoleOptions.json) {
      Json object = {{"type", "difference"}, {"only_in", isInA ? "a" : "b"}, {"hash", hash.text()}};
      if (size) object["size"] = *size;
      text += JsonLine(object);
    } else {
      text += fmt::format("{} {}{}\n", isInA ? '-' : '+', hash.text(),
                          size ? " " + std::to_string(*size) : "");
    }
  }
  PrintText(text);
  Inform("{} only in {}, {} only in {}", Count(onlyA, "blob"), options.a, onlyB, options.b);
  return damaged || onlyA + onlyB != 0 ? kFault : kSuccess;
}

}  // namespace

void AddDiff(CommandLine& line) {
  auto [command, options] =
      line.Add(Group::kLook,
               {"diff", "compare the blobs of two stores, or of a store and a manifest",
                "What only SRC has is marked with -, what only DST has with +. The exit status is "
                "1 if there is anything.",
                "blobring diff /data/store /backup/store"},
               Diff);
  command.add_option("SRC", options.a, "a store, a pack or journal, or a manifest")->required();
  command.add_option("DST", options.b, "another one")->required();
}

}  // namespace tool
