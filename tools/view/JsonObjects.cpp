#include "tools/view/JsonObjects.h"

#include <algorithm>
#include <array>
#include <bit>

#include "tools/view/StoreView.h"

namespace tool {
namespace {

// Blobs by size: 0, 1, 2 to 3, 4 to 7, and so on.
struct SizeClass {
  uint64_t from = 0;
  uint64_t to = 0;  // inclusive
  uint64_t blobCount = 0;
  uint64_t bytes = 0;
};

std::vector<SizeClass> SizeClasses(const StoreView& view) {
  std::array<SizeClass, 33> classes = {};
  for (size_t i = 1; i < classes.size(); ++i) {
    classes[i].from = uint64_t{1} << (i - 1);
    classes[i].to = 2 * classes[i].from - 1;
  }
  for (const ViewedBlob& blob : view.blobs()) {
    SizeClass& found = classes.at(std::bit_width(blob.size));
    ++found.blobCount;
    found.bytes += blob.size;
  }
  std::vector<SizeClass> used;
  for (const SizeClass& found : classes)
    if (found.blobCount != 0) used.push_back(found);
  return used;
}

}  // namespace

double ShareOfLimit(uint64_t bytes) {
  return static_cast<double>(bytes) / format::kMaxFileSize;
}

std::vector<Json> StatObjects(const StoreView& view) {
  uint64_t diskBytes = 0;
  uint64_t unusedBytes = 0;  // behind the records of the files
  for (const SlotFile& file : view.files()) {
    diskBytes += file.status.size;
    if (file.status.state == FileStatus::State::kSound)
      unusedBytes += file.status.size - file.status.header.endOffset;
  }
  const std::vector<std::string> setAside = FilesSetAside(view);
  for (const std::string& path : setAside) diskBytes += ReadStatus(path).size;
  const uint64_t journalBytes = view.current().size() == 2 ? view.walked(view.current()[1]).end : 0;
  Json stat = {{"type", "stat"},
               {"store", view.path()},
               {"slots", view.slotCount()},
               {"current", nullptr},
               {"sequence", view.sequence()},
               {"blobs", view.blobs().size()},
               {"live_bytes", view.liveBytes()},
               {"dead_bytes", view.deadBytes()},
               {"disk_bytes", diskBytes},
               {"unused_bytes", unusedBytes},
               {"journal_bytes", journalBytes},
               {"repacked_bytes", view.repackedBytes()},
               {"repack_fits", view.repackedBytes() <= format::kMaxFileSize},
               {"max_file_bytes", format::kMaxFileSize},
               {"damaged", view.damaged()},
               {"digests_compared", view.depth() == Depth::kAll},
               {"findings", view.findings()},
               {"open_in", Json::array()},
               {"set_aside", setAside},
               {"unfinished_repacks", UnfinishedRepacks(view)},
               {"sizes", Json::array()}};
  if (view.slot()) stat["current"] = *view.slot();
  for (const Holder& holder : view.holders())
    stat["open_in"].push_back({{"pid", holder.pid}, {"command", holder.command}});
  for (const SizeClass& sizes : SizeClasses(view))
    stat["sizes"].push_back({{"from", sizes.from},
                             {"to", sizes.to},
                             {"blobs", sizes.blobCount},
                             {"bytes", sizes.bytes}});
  std::vector<Json> objects = {stat};
  for (size_t i = 0; i < view.files().size(); ++i) objects.push_back(FileObject(view, i));
  return objects;
}

Json FileObject(const StoreView& view, size_t index) {
  const SlotFile& file = view.files()[index];
  const bool isCurrent =
      std::find(view.current().begin(), view.current().end(), index) != view.current().end();
  // A file that is missing or new does not say.
  const bool isPack = view.isSingleFile() ? file.status.header.mode == 1 : index % 2 == 0;
  return {{"type", "file"},
          {"path", file.path},
          {"slot", view.isSingleFile() ? Json() : Json(index / 2)},
          {"kind", isPack ? "pack" : "journal"},
          {"current", isCurrent},
          {"not_shown", view.IsNotShown(index)},
          {"size", file.status.size},
          {"header", format::NameOf(file.status.state)},
          {"sequence", file.status.header.sequence},
          {"records", file.status.header.recordCount},
          {"end_offset", file.status.header.endOffset}};
}

Json BlobObject(const StoreView& view, const ViewedBlob& blob) {
  return {{"type", "blob"},
          {"hash", blob.hash.text()},
          {"size", blob.size},
          {"transaction", blob.transactionId},
          {"file", view.files()[blob.file].path},
          {"offset", blob.offset}};
}

}  // namespace tool
