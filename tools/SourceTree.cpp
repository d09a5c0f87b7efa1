#include "tools/SourceTree.h"

#include <fmt/format.h>
#include <fts.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "tools/Console.h"

namespace tool {
namespace {

int ByName(const FTSENT** a, const FTSENT** b) {
  return std::strcmp((*a)->fts_name, (*b)->fts_name);
}

}  // namespace

SourceTree SourceTree::List(const std::string& directory, const std::set<FileId>& exclude,
                            bool verbose) {
  SourceTree tree;
  tree.root = directory;
  std::string root = directory;
  char* roots[] = {root.data(), nullptr};
  const std::unique_ptr<FTS, int (*)(FTS*)> walk(
      ::fts_open(roots, FTS_PHYSICAL | FTS_COMFOLLOW | FTS_NOCHDIR, ByName), ::fts_close);
  if (!walk) ThrowErrno("read " + directory);
  errno = 0;
  while (const FTSENT* entry = ::fts_read(walk.get())) {
    const std::string path = entry->fts_path;
    const auto leaveOut = [&](std::string_view why, uint64_t& count) {
      ++count;
      if (verbose) Say(fmt::format("left out {}: {}", path, why));
    };
    const int kind = entry->fts_info;
    if (entry->fts_level == 0 && kind != FTS_D && kind != FTS_DP) {
      errno = entry->fts_errno != 0 ? entry->fts_errno : ENOTDIR;
      ThrowErrno("read " + directory);
    }
    if (kind == FTS_DNR || kind == FTS_ERR || kind == FTS_NS) {
      ++tree.unreadableCount;
      Say(fmt::format("cannot read {}: {}", path, std::strerror(entry->fts_errno)));
    } else if (kind == FTS_SL || kind == FTS_SLNONE) {
      leaveOut("a symbolic link", tree.symbolicLinkCount);
    } else if (kind == FTS_DEFAULT) {
      leaveOut("not a regular file", tree.specialFileCount);
    } else if (kind == FTS_F) {
      const struct stat& status = *entry->fts_statp;
      if (exclude.contains({status.st_dev, status.st_ino})) {
        leaveOut("the store's or the manifest", tree.excludedCount);
        continue;
      }
      tree.files.push_back({path.substr(path.find_first_not_of('/', root.size())),
                            static_cast<uint64_t>(status.st_size)});
      tree.byteCount += static_cast<uint64_t>(status.st_size);
    }
    errno = 0;
  }
  if (errno != 0) ThrowErrno("read " + directory);
  return tree;
}

}  // namespace tool
