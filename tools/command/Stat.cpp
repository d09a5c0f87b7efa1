// stat.
#include <algorithm>

#include "tools/base/Console.h"
#include "tools/base/Json.h"
#include "tools/command/Commands.h"
#include "tools/view/JsonObjects.h"
#include "tools/view/StoreView.h"

namespace tool {
namespace {

// A sound header says nothing of what is behind it.
std::string StateOf(FileStatus::State state) {
  const bool isOfHeader =
      state == FileStatus::State::kSound || state == FileStatus::State::kDamaged;
  return fmt::format("{}{}", isOfHeader ? "header " : "", format::NameOf(state));
}

// `stat` is the object of that name.
std::string AsText(const StoreView& view, const Json& stat) {
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
  if (view.depth() != Depth::kAll) text += "data      not read; `blobring check` does\n";
  text += fmt::format("blobs     {}\n", view.blobs().size()) + row("live", view.liveBytes()) +
          row("dead", view.deadBytes()) + row("disk", stat["disk_bytes"]);
  if (stat["unused_bytes"] != 0) text += row("unused", stat["unused_bytes"]);
  text += fmt::format("repack    frees {}; new pack {} ({} of the largest)\n",
                      HumanSize(view.deadBytes()), HumanSize(view.repackedBytes()),
                      share(view.repackedBytes()));
  if (!view.isSingleFile())
    text += fmt::format("journal   {} ({}), {} of the largest journal\n",
                        stat["journal_bytes"].get<uint64_t>(), HumanSize(stat["journal_bytes"]),
                        share(stat["journal_bytes"]));
  for (const Holder& holder : view.holders())
    text += fmt::format("open in   process {} ({})\n", holder.pid, holder.command);
  for (const std::string path : stat["set_aside"])
    text += fmt::format("set aside {} ({})\n", path, HumanSize(ReadStatus(path).size));
  for (const std::string path : stat["unfinished_repacks"])
    text += fmt::format("leftover  {}, of an unfinished repack\n", path);
  uint64_t most = 1;
  for (const Json& sizes : stat["sizes"]) most = std::max<uint64_t>(most, sizes["blobs"]);
  if (!stat["sizes"].empty()) text += "\nbytes                     blobs  total\n";
  for (const Json& sizes : stat["sizes"]) {
    const uint64_t count = sizes["blobs"];
    text += fmt::format("{:>10} - {:<10} {:>8}  {:>10}  {:#<{}}\n", sizes["from"].get<uint64_t>(),
                        sizes["to"].get<uint64_t>(), count, HumanSize(sizes["bytes"]), "",
                        1 + 39 * count / most);
  }
  text += "\nslot          size       in use  sequence  state           file\n";
  for (size_t i = 0; i < view.files().size(); ++i) {
    const FileStatus& status = view.files()[i].status;
    text += fmt::format("{:>4}{} {:>12} {:>12} {:>9}  {:<14}  {}{}\n",
                        view.isSingleFile() ? "-" : std::to_string(i / 2),
                        view.slot() == i / 2 ? '*' : ' ', status.size, status.header.endOffset,
                        status.header.sequence, StateOf(status.state), view.files()[i].path,
                        view.IsNotShown(i) ? ", not shown" : "");
  }
  return text;
}

// Prints how full the store is, and a line for each of its files.
ExitStatus Stat(const StoreOptions& options) {
  const StoreView view(options, Depth::kRecords);
  std::string text;
  const std::vector<Json> objects = StatObjects(view);
  if (consoleOptions.json)
    for (const Json& object : objects) text += JsonLine(object);
  else
    text = AsText(view, objects.front());
  PrintText(text);
  if (view.repackedBytes() > format::kMaxFileSize)
    Say("the live blobs no longer fit into one pack: a repack is refused until some are deleted");
  else if (ShareOfLimit(view.repackedBytes()) >= kWarnFrom)
    Say("the live blobs fill {:.0f} % of the largest pack: plan for a second store",
        100 * ShareOfLimit(view.repackedBytes()));
  return view.damaged() ? kFault : kSuccess;
}

}  // namespace

void AddStat(CommandLine& line) {
  auto [command, at] = line.Add(
      Group::kLook,
      {"stat", "print how full the store and its files are", "", "blobring stat /data/store"},
      Stat);
  CommandLine::AddStore(command, at, Access::kLook);
}

}  // namespace tool
