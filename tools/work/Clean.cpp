// clean.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "tools/Commands.h"
#include "tools/Json.h"
#include "tools/look/StoreView.h"

namespace tool {
namespace {

namespace stdfs = std::filesystem;

struct Leftover {
  std::string path;
  std::string what;
  uint64_t size = 0;
};

// Names what nothing uses any more; nothing for other files.
std::string WhatIs(const stdfs::path& path) {
  const std::string name = path.filename().string();
  if (name.starts_with(".blobring-") && name.ends_with(".tmp")) {
    const Fd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    const bool isFree = file.valid() && ::flock(file.get(), LOCK_EX | LOCK_NB) == 0;
    return isFree ? "temporary file of a killed command" : "";
  }
  if (name.find(".pak.kept-") != std::string::npos || name.find(".jrn.kept-") != std::string::npos)
    return "copy of a damaged file, set aside";
  return name.ends_with(".pak.new") ? "repack that did not finish" : "";
}

std::vector<Leftover> Find(const Layout& layout) {
  std::set<std::string> directories = {layout.store()};
  for (size_t slot = 0; slot < layout.slotCount(); ++slot) directories.insert(layout.PackDir(slot));
  std::vector<Leftover> found;
  for (const std::string& directory : directories)
    for (const auto& entry : stdfs::directory_iterator(directory)) {
      const std::string what = entry.is_regular_file() ? WhatIs(entry.path()) : "";
      if (!what.empty()) found.push_back({entry.path().string(), what, entry.file_size()});
    }
  return found;
}

}  // namespace

ExitStatus Clean(const CleanOptions& options) {
  const Layout layout = LayoutOf(options.at, Access::kChange);
  std::vector<Leftover> found;
  {
    // While files go, the store is ours, and known to be sound without them.
    std::optional<OpenStore> open;
    if (options.remove) open.emplace(options.at, Access::kChange);
    found = Find(layout);
    for (const Leftover& leftover : found)
      if (options.remove && ::unlink(leftover.path.c_str()) != 0)
        ThrowErrno("remove " + leftover.path);
  }
  std::string text;
  uint64_t bytes = 0;
  for (const Leftover& leftover : found) {
    bytes += leftover.size;
    text += consoleOptions.json ? JsonLine({{"type", "leftover"},
                                            {"path", leftover.path},
                                            {"size", leftover.size},
                                            {"what", leftover.what},
                                            {"removed", options.remove}})
                                : fmt::format("{} ({}): {}\n", leftover.path,
                                              HumanSize(leftover.size), leftover.what);
  }
  PrintText(text);
  Inform("{}, {}{}", Count(found.size(), "file"), HumanSize(bytes),
         options.remove  ? " removed"
         : found.empty() ? ""
                         : "; --delete removes them: look into copies that were set aside first, "
                           "`blobring salvage` reads them");
  return found.empty() ? kNothing : kSuccess;
}

}  // namespace tool
