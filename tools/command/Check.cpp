// check.
#include <algorithm>
#include <filesystem>

#include "tools/base/Console.h"
#include "tools/base/Json.h"
#include "tools/command/Commands.h"
#include "tools/view/Faults.h"
#include "tools/view/Rest.h"
#include "tools/view/StoreView.h"

namespace tool {
namespace {

struct CheckOptions {
  StoreOptions at;
  bool structure = false;  // digests of transactions alone
  bool quick = false;      // headers alone
};

std::vector<BlobFault> HeaderFaults(const StoreOptions& at, size_t& count) {
  std::vector<SlotFile> files;
  std::error_code ignored;
  const bool isStore = std::filesystem::is_directory(at.directory, ignored);
  if (isStore)
    files = LayoutOf(at, Access::kLook).ReadFiles();
  else
    files = {{at.directory, ReadStatus(at.directory)}};
  count = files.size();
  const bool isUsed = !isStore || std::any_of(files.begin(), files.end(), [](const SlotFile& file) {
    return file.status.IsUsed();
  });
  std::vector<BlobFault> faults;
  for (const SlotFile& file : files) {
    if (file.status.state == FileStatus::State::kMissing && isUsed)
      faults.push_back({file.path, "missing"});
    if (file.status.state == FileStatus::State::kDamaged)
      faults.push_back({file.path, "damaged header"});
  }
  if (!isStore) return faults;
  for (const auto& [file, text] : FindSwapped(files)) faults.push_back({files[file].path, text});
  for (const size_t file : LostPacks(files))
    if (files[file].status.state != FileStatus::State::kDamaged)
      faults.push_back(
          {files[file].path, "lost, maybe the newest pack; or another header is damaged"});
  return faults;
}

ExitStatus CheckHeaders(const StoreOptions& at) {
  size_t count = 0;
  std::vector<BlobFault> faults = HeaderFaults(at, count);
  if (!faults.empty()) faults = HeaderFaults(at, count);  // a file may have been cut meanwhile
  std::string text;
  for (const BlobFault& fault : faults)
    text += consoleOptions.json ? JsonLine(FaultObject(fault))
                                : fmt::format("{}: {}\n", fault.path, Red(fault.what));
  PrintText(text);
  Inform("checked {}: {}", Count(count, "header"),
         faults.empty() ? "every one is sound" : "the store is damaged");
  return faults.empty() ? kSuccess : kFault;
}

// Older generations, and what no header counts, are no fault.
void SayUnchecked(const StoreView& view) {
  for (size_t i = 0; i < view.files().size(); ++i) {
    const SlotFile& file = view.files()[i];
    if (view.isWalked(i)) {
      const uint64_t end = file.status.header.endOffset;
      const bool hasRest = file.status.state == FileStatus::State::kSound && end < file.status.size;
      if (!hasRest) continue;
      SalvageFile opened(file.path);
      const Rest rest = RestOf(opened, file.status.header, end, [](const auto&, auto) {});
      if (rest.kind != Rest::Kind::kZeros)
        Inform("{} behind the records of {} do not count: {}", Count(rest.size, "byte"), file.path,
               rest.what);
    } else if (file.status.IsUsed() && file.status.state == FileStatus::State::kSound &&
               !view.IsNotShown(i)) {
      Inform("{} is of an older generation and was not checked", file.path);
    }
  }
  for (const std::string& path : UnfinishedRepacks(view))
    Inform("{} is of an unfinished repack and counts for nothing", path);
}

bool IsSetAside(const BlobFault& fault) {
  const auto name = format::FileName::Parse(std::filesystem::path(fault.path).filename().string());
  return name && name->IsSetAside();
}

ExitStatus Check(const CheckOptions& options) {
  if (options.quick) return CheckHeaders(options.at);
  StoreView view(options.at);
  const std::vector<BlobFault> faults =
      view.Steadily([&] { return FindFaults(view, !options.structure); });
  const bool sound = faults.empty() && !view.damaged();
  std::string text;
  for (const BlobFault& fault : faults) {
    if (consoleOptions.json)
      text += JsonLine(FaultObject(fault));
    else if (fault.hash)
      text += fmt::format("{} at {}: blob {}, {}, {}\n", fault.path, fault.offset,
                          fault.hash->text(), Count(fault.size, "byte"), Red(fault.what));
    else
      text += fmt::format("{} at {}: {}\n", fault.path, fault.offset, Red(fault.what));
  }
  if (consoleOptions.json)
    text += JsonLine({{"type", "check"},
                      {"store", view.path()},
                      {"blobs", view.blobs().size()},
                      {"live_bytes", view.liveBytes()},
                      {"blobs_read", !options.structure},
                      {"faults", faults.size()},
                      {"sound", sound}});
  PrintText(text);
  for (const std::string& path : FilesSetAside(view))
    if (std::none_of(faults.begin(), faults.end(),
                     [&path](const BlobFault& fault) { return fault.path == path; }))
      Inform("{} was set aside by a load; the store has all blobs {}", path,
             BytesWithoutRecord(path) == 0
                 ? "in it"
                 : "that can be read in it. For the rest, a power cut interrupted a commit, or it "
                   "was lost later");
  SayUnchecked(view);
  const bool isWhole = !view.damaged() && std::all_of(faults.begin(), faults.end(), IsSetAside);
  Inform("checked {}, {}: {}{}", Count(view.blobs().size(), "blob"), HumanSize(view.liveBytes()),
         !isWhole            ? "the store is damaged"
         : options.structure ? "every transaction is sound"
                             : "every blob is sound",
         isWhole && !sound ? ", but there is more in what was set aside" : "");
  if (!isWhole)
    Say("`blobring salvage {} NEW` copies all that can be read into a new store, `blobring export` "
        "restores files from what is shown; or restore a backup",
        view.path());
  else if (!sound)
    Say("`blobring salvage {0} NEW` copies them too into a new store, `blobring clean --delete "
        "--force {0}` gives them up",
        view.path());
  return sound ? kSuccess : kFault;
}

}  // namespace

ExitStatus CheckStore(const std::string& directory) {
  return Check({{directory}});
}

void AddCheck(CommandLine& line) {
  for (const char* name : {"check", "fsck"}) {
    auto [command, options] =
        line.Add(Group::kLook,
                 {name, "check every transaction and every blob",
                  "A line for each fault: the file, the place, and the blob that was hit.",
                  std::string("blobring ") + name + " /data/store"},
                 Check);
    CommandLine::AddStore(command, options.at, Access::kLook);
    command.add_flag("--structure", options.structure, "digests of transactions alone");
    command.add_flag("--quick", options.quick, "headers alone");
  }
}

}  // namespace tool
