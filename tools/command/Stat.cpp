// stat.
#include <algorithm>
#include <array>
#include <bit>

#include "tools/base/Json.h"
#include "tools/command/Looking.h"
#include "tools/view/Objects.h"

namespace tool {
namespace {

constexpr double kWarnFrom = 0.8;  // of the largest file

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

double ShareOfLimit(uint64_t bytes) {
  return static_cast<double>(bytes) / format::kMaxFileSize;
}

struct Facts {
  explicit Facts(const StoreView& theView) : view(theView), sizes(SizeClasses(view)) {
    for (const SlotFile& file : view.files()) {
      diskBytes += file.head.size;
      if (file.head.state == FileHead::State::kSound)
        unusedBytes += file.head.size - file.head.header.endOffset;
    }
    for (const std::string& path : FilesSetAside(view)) {
      diskBytes += ReadHead(path).size;
      setAside.push_back(path);
    }
    if (view.current().size() == 2) journalBytes = view.walked(view.current()[1]).end;
  }

  const StoreView& view;
  std::vector<SizeClass> sizes;
  std::vector<std::string> setAside;
  uint64_t diskBytes = 0;
  uint64_t unusedBytes = 0;  // behind the records of the files
  uint64_t journalBytes = 0;
};

// A sound header says nothing of what is behind it.
std::string StateOf(FileHead::State state) {
  const bool isOfHeader = state == FileHead::State::kSound || state == FileHead::State::kDamaged;
  return fmt::format("{}{}", isOfHeader ? "header " : "", format::NameOf(state));
}

std::string AsText(const Facts& facts) {
  const StoreView& view = facts.view;
  const auto row = [](std::string_view name, uint64_t bytes) {
    return fmt::format("{:<9} {} ({})\n", name, bytes, HumanSize(bytes));
  };
  const auto share = [](uint64_t bytes) {
    return fmt::format("{:.1f} %", 100 * ShareOfLimit(bytes));
  };
  std::string text;
  if (!view.isSingleFile())
    text = fmt::format("slots     {}\ncurrent   {}\nsequence  {}\n", view.slotCount(),
                       view.slot() ? std::to_string(*view.slot()) : "-", view.sequence());
  text += fmt::format("blobs     {}\n", view.blobs().size()) + row("live", view.liveBytes()) +
          row("dead", view.deadBytes()) + row("disk", facts.diskBytes);
  if (facts.unusedBytes != 0) text += row("unused", facts.unusedBytes);
  text += fmt::format("repack    gives back {}, writes {}, {} of the largest pack\n",
                      HumanSize(view.deadBytes()), HumanSize(view.repackedBytes()),
                      share(view.repackedBytes()));
  if (!view.isSingleFile())
    text += fmt::format("journal   {} ({}), {} of the largest journal\n", facts.journalBytes,
                        HumanSize(facts.journalBytes), share(facts.journalBytes));
  for (const Holder& holder : view.holders())
    text += fmt::format("open in   process {} ({})\n", holder.pid, holder.command);
  for (const std::string& path : facts.setAside)
    text += fmt::format("set aside {} ({})\n", path, HumanSize(ReadHead(path).size));
  for (const std::string& path : UnfinishedRepacks(view))
    text += fmt::format("leftover  {}, of an unfinished repack\n", path);
  uint64_t most = 1;
  for (const SizeClass& sizes : facts.sizes) most = std::max(most, sizes.blobCount);
  if (!facts.sizes.empty()) text += "\nbytes                     blobs  total\n";
  for (const SizeClass& sizes : facts.sizes)
    text +=
        fmt::format("{:>10} - {:<10} {:>8}  {:>10}  {:#<{}}\n", sizes.from, sizes.to,
                    sizes.blobCount, HumanSize(sizes.bytes), "", 1 + 39 * sizes.blobCount / most);
  text += "\nslot          size       in use  sequence  state           file\n";
  for (size_t i = 0; i < view.files().size(); ++i) {
    const FileHead& head = view.files()[i].head;
    text += fmt::format("{:>4}{} {:>12} {:>12} {:>9}  {:<14}  {}{}\n",
                        view.isSingleFile() ? "-" : std::to_string(i / 2),
                        view.slot() == i / 2 ? '*' : ' ', head.size, head.header.endOffset,
                        head.header.sequence, StateOf(head.state), view.files()[i].path,
                        view.IsNotShown(i) ? ", not shown" : "");
  }
  return text;
}

}  // namespace

std::vector<Json> StatObjects(const StoreView& view) {
  const Facts facts(view);
  Json stat = {{"type", "stat"},
               {"store", view.path()},
               {"slots", view.slotCount()},
               {"current", nullptr},
               {"sequence", view.sequence()},
               {"blobs", view.blobs().size()},
               {"live_bytes", view.liveBytes()},
               {"dead_bytes", view.deadBytes()},
               {"disk_bytes", facts.diskBytes},
               {"unused_bytes", facts.unusedBytes},
               {"journal_bytes", facts.journalBytes},
               {"repacked_bytes", view.repackedBytes()},
               {"repack_fits", view.repackedBytes() <= format::kMaxFileSize},
               {"max_file_bytes", format::kMaxFileSize},
               {"damaged", view.damaged()},
               {"findings", view.findings()},
               {"open_in", Json::array()},
               {"set_aside", facts.setAside},
               {"unfinished_repacks", UnfinishedRepacks(view)},
               {"sizes", Json::array()}};
  if (view.slot()) stat["current"] = *view.slot();
  for (const Holder& holder : view.holders())
    stat["open_in"].push_back({{"pid", holder.pid}, {"command", holder.command}});
  for (const SizeClass& sizes : facts.sizes)
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
  const bool isPack = view.isSingleFile() ? file.head.header.mode == 1 : index % 2 == 0;
  return {{"type", "file"},
          {"path", file.path},
          {"slot", view.isSingleFile() ? Json() : Json(index / 2)},
          {"kind", isPack ? "pack" : "journal"},
          {"current", isCurrent},
          {"not_shown", view.IsNotShown(index)},
          {"size", file.head.size},
          {"header", format::NameOf(file.head.state)},
          {"sequence", file.head.header.sequence},
          {"records", file.head.header.recordCount},
          {"end_offset", file.head.header.endOffset}};
}

ExitStatus Stat(const StoreOptions& options) {
  const StoreView view(options);
  std::string text;
  if (consoleOptions.json)
    for (const Json& object : StatObjects(view)) text += JsonLine(object);
  else
    text = AsText(Facts(view));
  PrintText(text);
  if (view.repackedBytes() > format::kMaxFileSize)
    Say("the live blobs no longer fit into one pack: a repack is refused until some are deleted");
  else if (ShareOfLimit(view.repackedBytes()) >= kWarnFrom)
    Say("the live blobs fill {:.0f} % of the largest pack: plan for a second store",
        100 * ShareOfLimit(view.repackedBytes()));
  return view.damaged() ? kFault : kSuccess;
}

}  // namespace tool
