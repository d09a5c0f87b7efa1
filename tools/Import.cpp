#include "tools/Import.h"

#include <fmt/format.h>

#include <memory>
#include <vector>

#include "tools/BatchWriter.h"
#include "tools/Console.h"
#include "tools/Manifest.h"
#include "tools/SourceTree.h"
#include "tools/StagedFile.h"
#include "tools/Store.h"

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

// Where manifest lines go: a file that appears when all is done, or standard
// output as the commits come.
class ManifestOutput {
 public:
  explicit ManifestOutput(const std::string& path) : split_(path) {
    if (path.empty()) return;
    directory_ = OpenDirectory(split_.directory);
    file_ = std::make_unique<StagedFile>(directory_.get(), split_.name, path);
  }
  void Write(std::string_view lines) {
    if (file_)
      file_->Write(AsBytes(lines));
    else
      Print(lines);
  }
  void Finish() {
    if (!file_) return;
    file_->Sync();
    file_->Publish(StagedFile::Existing::kReplace);
  }

 private:
  SplitPath split_;
  Fd directory_;
  std::unique_ptr<StagedFile> file_;
};

std::vector<std::string> FilesOf(const Layout& layout) {
  std::vector<std::string> paths = {Layout::ConfPath(layout.store())};
  for (size_t slot = 0; slot < layout.slotCount(); ++slot) {
    paths.push_back(layout.PackPath(slot));
    paths.push_back(layout.JournalPath(slot));
  }
  return paths;
}

// Stores one file and counts it. Nothing in a file can throw here, only the store.
void ImportFile(const SourceTree& tree, const SourceTree::File& file, Buffer& buffer, BatchWriter& writer,
                Totals& totals) {
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
  Say(fmt::format("imported {}, {}, in {:.1f} s", Count(totals.fileCount, "file"), HumanSize(totals.byteCount),
                  seconds));
  Say(fmt::format("{} stored, {}; {} had contents that the store holds already, which saved {}",
                  Count(totals.newCount, "new blob"), HumanSize(totals.newBytes),
                  Count(totals.fileCount - totals.newCount, "file"), HumanSize(totals.byteCount - totals.newBytes)));
  const uint64_t leftOut = tree.symbolicLinkCount + tree.specialFileCount + tree.storeFileCount;
  if (leftOut != 0)
    Say(fmt::format("left out: {}, {}, {} of the store itself", Count(tree.symbolicLinkCount, "symbolic link"),
                    Count(tree.specialFileCount, "special file"), Count(tree.storeFileCount, "file")));
  const uint64_t failed = totals.failureCount + tree.unreadableCount;
  if (failed != 0)
    Say(fmt::format("{} could not be read and {} not in the manifest", Count(failed, "entry"),
                    failed == 1 ? "is" : "are"));
}

}  // namespace

ExitStatus Import(const StoreOptions& at, const ImportOptions& options) {
  Store store(at);
  ManifestOutput manifest(options.manifest);
  const SourceTree tree = SourceTree::List(options.directory, FilesOf(at.layout), options.verbose);
  Totals totals;
  Buffer buffer;
  Progress progress("importing", tree.files.size(), tree.byteCount);
  BatchWriter writer(store, [&](std::string_view lines) { manifest.Write(lines); });
  for (const SourceTree::File& file : tree.files) {
    ImportFile(tree, file, buffer, writer, totals);
    progress.Advance(file.size);
  }
  writer.Commit();
  manifest.Finish();
  SayTotals(tree, totals, progress.Elapsed());
  return totals.failureCount + totals.changedCount + tree.unreadableCount == 0 ? kSuccess : kFault;
}

}  // namespace tool
