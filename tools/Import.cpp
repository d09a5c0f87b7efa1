#include "tools/Import.h"

#include <fmt/format.h>

#include <set>

#include "tools/BatchWriter.h"
#include "tools/Console.h"
#include "tools/Manifest.h"
#include "tools/SourceTree.h"
#include "tools/StagedFile.h"

namespace tool {
namespace {

struct Totals {
  uint64_t fileCount = 0;
  uint64_t byteCount = 0;
  uint64_t newCount = 0;  // blobs that the store did not have
  uint64_t newBytes = 0;
  uint64_t failureCount = 0;
  uint64_t changedCount = 0;
};

// What must not be imported: the store's files, the manifest, standard output.
std::set<FileId> Excluded(const Layout& layout, const std::string& manifest, const Output& out) {
  std::set<FileId> ids;
  const auto add = [&ids](const std::optional<FileId>& id) {
    if (id) ids.insert(*id);
  };
  add(out.stagedId());
  if (!manifest.empty()) add(IdOf(manifest));
  add(IdOf(Layout::ConfPath(layout.store())));
  for (size_t slot = 0; slot < layout.slotCount(); ++slot) {
    add(IdOf(layout.PackPath(slot)));
    add(IdOf(layout.JournalPath(slot)));
  }
  return ids;
}

// Stores one file and counts it. Nothing in a file can throw here, only the store.
void ImportFile(const SourceTree& tree, const SourceTree::File& file, Buffer& buffer,
                BatchWriter& writer, Totals& totals) {
  SourceFile source;
  try {
    source = ReadRegularFile(tree.PathOf(file), buffer);
  } catch (const Fault& fault) {
    ++totals.failureCount;
    return Say(fault.what());
  }
  if (source.changed) {
    ++totals.changedCount;
    Say(fmt::format("{} changed while it was read; stored as it was read last", tree.PathOf(file)));
  }
  const BatchWriter::Added added = writer.Add(source.bytes, tree.PathOf(file));
  // "./" as find(1) prints it: a file named "-" would be standard input to md5sum.
  writer.AddLine(ManifestLine({added.hash, "./" + file.name}));
  if (added.isNew) {
    ++totals.newCount;
    totals.newBytes += source.bytes.size();
  }
  ++totals.fileCount;
  totals.byteCount += source.bytes.size();
}

void SayTotals(const SourceTree& tree, const Totals& totals, double seconds) {
  Say(fmt::format("imported {}, {}, in {:.1f} s", Count(totals.fileCount, "file"),
                  HumanSize(totals.byteCount), seconds));
  Say(fmt::format("{} stored, {}; {} had contents that the store holds already, which saved {}",
                  Count(totals.newCount, "new blob"), HumanSize(totals.newBytes),
                  Count(totals.fileCount - totals.newCount, "file"),
                  HumanSize(totals.byteCount - totals.newBytes)));
  const uint64_t leftOut = tree.symbolicLinkCount + tree.specialFileCount + tree.excludedCount;
  if (leftOut != 0)
    Say(fmt::format("left out: {}, {}, {} of the store or the manifest",
                    Count(tree.symbolicLinkCount, "symbolic link"),
                    Count(tree.specialFileCount, "special file"),
                    Count(tree.excludedCount, "file")));
  const uint64_t failed = totals.failureCount + tree.unreadableCount;
  if (failed != 0)
    Say(fmt::format("{} could not be stored and {} not in the manifest",
                    failed == 1 ? "1 entry" : fmt::format("{} entries", failed),
                    failed == 1 ? "is" : "are"));
}

}  // namespace

ExitStatus Import(const StoreOptions& at, const ImportOptions& options) {
  const Layout layout = LayoutOf(at, Access::kChange);
  Output out(options.manifest, options.force ? Existing::kReplace : Existing::kKeep);
  const SourceTree tree =
      SourceTree::List(options.directory, Excluded(layout, options.manifest, out), options.verbose);
  std::string lines;
  Totals totals;
  Progress progress("importing", tree.files.size(), tree.byteCount);
  try {
    OpenStore open(at, Access::kChange);
    Buffer buffer;
    BatchWriter writer(open.store, lines);
    for (const SourceTree::File& file : tree.files) {
      ImportFile(tree, file, buffer, writer, totals);
      progress.Advance(file.size);
    }
    writer.Commit();
  } catch (...) {
    if (!out.isFile()) out.Write(AsBytes(lines));
    throw;
  }
  out.Write(AsBytes(lines));
  out.Finish();
  SayTotals(tree, totals, progress.Elapsed());
  return totals.failureCount + totals.changedCount + tree.unreadableCount == 0 ? kSuccess : kFault;
}

}  // namespace tool
