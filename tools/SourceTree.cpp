#include "tools/SourceTree.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

#include "tools/Console.h"
#include "tools/Error.h"

namespace tool {
namespace {

namespace stdfs = std::filesystem;

class Lister {
 public:
  Lister(SourceTree& tree, const std::set<FileId>& exclude, bool verbose)
      : tree_(tree), exclude_(exclude), verbose_(verbose) {}

  // Lists one directory, `name` below the root ("" for the root); the
  // directories in it are left in `waiting`, the first to be taken on top.
  void ListDirectory(const std::string& name, std::vector<std::string>& waiting) {
    std::error_code code;
    std::vector<std::string> entries;
    for (stdfs::directory_iterator it(tree_.root + "/" + name, code), end; !code && it != end; it.increment(code))
      entries.push_back(it->path().filename().string());
    if (code && name.empty()) throw Fault(fmt::format("cannot read {}: {}", tree_.root, code.message()));
    if (code) Unreadable(name, code.message());
    std::sort(entries.begin(), entries.end());
    const size_t bottom = waiting.size();
    for (const std::string& entry : entries) Take(fmt::format("{}{}{}", name, name.empty() ? "" : "/", entry), waiting);
    std::reverse(waiting.begin() + static_cast<std::ptrdiff_t>(bottom), waiting.end());
  }

 private:
  void Take(const std::string& name, std::vector<std::string>& waiting) {
    struct stat status = {};
    if (::lstat((tree_.root + "/" + name).c_str(), &status) != 0) return Unreadable(name, std::strerror(errno));
    if (S_ISDIR(status.st_mode)) return waiting.push_back(name);
    if (S_ISLNK(status.st_mode)) return LeaveOut(name, "a symbolic link", tree_.symbolicLinkCount);
    if (!S_ISREG(status.st_mode)) return LeaveOut(name, "not a regular file", tree_.specialFileCount);
    if (exclude_.contains({status.st_dev, status.st_ino}))
      return LeaveOut(name, "the store's or the manifest", tree_.excludedCount);
    tree_.files.push_back({name, static_cast<uint64_t>(status.st_size)});
    tree_.byteCount += static_cast<uint64_t>(status.st_size);
  }

  void LeaveOut(const std::string& name, std::string_view why, uint64_t& count) const {
    ++count;
    if (verbose_) Say(fmt::format("left out {}/{}: {}", tree_.root, name, why));
  }

  void Unreadable(const std::string& name, const std::string& why) {
    ++tree_.unreadableCount;
    Say(fmt::format("cannot read {}/{}: {}", tree_.root, name, why));
  }

  SourceTree& tree_;
  const std::set<FileId>& exclude_;
  bool verbose_;
};

}  // namespace

SourceTree SourceTree::List(const std::string& directory, const std::set<FileId>& exclude, bool verbose) {
  SourceTree tree;
  tree.root = directory;
  Lister lister(tree, exclude, verbose);
  std::vector<std::string> waiting = {""};
  while (!waiting.empty()) {
    const std::string name = std::move(waiting.back());
    waiting.pop_back();
    lister.ListDirectory(name, waiting);
  }
  return tree;
}

}  // namespace tool
