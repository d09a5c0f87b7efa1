#include "tools/work/Open.h"

#include <algorithm>
#include <climits>
#include <utility>

#include "blobring/host.h"
#include "tools/base/Console.h"
#include "tools/base/Error.h"
#include "tools/base/Interrupt.h"

namespace tool {
namespace {

constexpr size_t kMaxTraceLines = 1000;

std::vector<std::pair<int, std::string>> traced;  // level and text

// Opening a store without any pack that can be loaded, for a change, moves all its files aside.
// That is refused where the headers alone show it. So are files under each other's names, of which
// a repack would overwrite the wrong ones.
void RequireLoadable(const Layout& layout) {
  const std::vector<SlotFile> files = layout.ReadFiles();
  if (const auto swapped = FindSwapped(files); !swapped.empty())
    throw Fault("{}; nothing was changed. Give the files their names back", swapped[0].second);
  bool isUsed = false;
  for (size_t i = 0; i < files.size(); i += 2) {
    if (files[i].status.IsLoadable()) return;
    isUsed = isUsed || files[i].status.state != FileStatus::State::kMissing;
  }
  const FileStatus& status = files.front().status;
  if (isUsed)
    throw Fault(
        "no pack can be loaded: the header of {} is damaged (sequence {}, {} of {} bytes in use); "
        "nothing was changed. `blobring salvage {} NEW` copies what can be read into a new store; "
        "or restore a backup",
        files.front().path, status.header.sequence, status.header.endOffset, status.size,
        layout.store());
}

blobring::Store Open(const StoreOptions& options, const Layout& layout, Access access) {
  blobring::Options raw;
  for (size_t slot = 0; slot < layout.slotCount(); ++slot)
    raw.packDirectories.emplace_back(layout.PackDir(slot));
  raw.eraseDamaged = options.eraseDamaged;
  raw.mustExist = access != Access::kCreate;
  raw.readOnly = access == Access::kLook;
  Progress progress("opening " + layout.store(), 0);
  raw.progress = [&progress](blobring::Operation, uint64_t done, uint64_t total) {
    if (!IsInterrupted()) progress.ShowBytes(done, total);  // a load cannot be stopped
    return true;
  };
  if (!raw.readOnly && !raw.eraseDamaged) RequireLoadable(layout);
  const bool hasFiles = Layout::CountJournals(layout.store()) != 0;
  DrainTrace(BLOBRING_HOST_WARNING);
  const auto sayTrace = [] {
    for (const std::string& line :
         DrainTrace(consoleOptions.verbose ? INT_MAX : BLOBRING_HOST_WARNING))
      Say("{}", line);
  };
  try {
    blobring::Store store(layout.store(), raw);
    sayTrace();
    ThrowIfInterrupted();
    return store;
  } catch (const blobring::Error& error) {
    const bool isErased = hasFiles && Layout::CountJournals(layout.store()) == 0;
    if (isErased || error.code() == BLOBRING_ERROR_DAMAGED) sayTrace();
    if (!isErased) throw;
  }
  Say("the store {} was erased and is empty now", layout.store());
  raw.mustExist = false;
  return blobring::Store(layout.store(), raw);
}

// The cause, and what a user can do; nothing where the text itself says it.
struct Advice {
  std::string_view cause = {};
  std::string_view action = {};
  bool isOfFullDisk = false;
};

Advice AdviceFor(const std::exception& failure) {
  const auto* const error = dynamic_cast<const blobring::Error*>(&failure);
  if (error == nullptr) return {};
  if (error->code() == BLOBRING_ERROR_HELD)
    return {"another process has the store open", "wait until it is done and try again"};
  switch (error->systemError()) {  // codes of the Win32 API reference
    case 0:
      if (error->code() != BLOBRING_ERROR_FULL) return {};
      return {"the journal is full",
              "run `blobring repack` and try again, what was committed is safe"};
    case 4:
      return {"too many files are open", "raise the limit (ulimit -n)"};
    case 5:
      return {"permission is denied", "look at the owner and mode of the store's files"};
    case 8:
      return {"memory is short"};
    case 19:
      return {"the file system is read-only"};
    case 39:
    case 112:
      return {"the disk is full", "free some space and try again, what was committed is safe",
              true};
    case 223:
      return {"a file may not grow further", "look at the limit on file sizes (ulimit -f)"};
    case 1117:
      return {"the disk reports an error", "look at the system's log"};
    default:
      return {};
  }
}

// The first line of what the store itself says.
std::string TextOf(const std::exception& failure) {
  constexpr std::string_view kPrefix = "blobring: ";
  std::string text = failure.what();
  if (dynamic_cast<const blobring::Error*>(&failure) == nullptr) return text;
  if (text.starts_with(kPrefix)) text.erase(0, kPrefix.size());
  return text.substr(0, text.find('\n'));
}

}  // namespace

OpenStore::OpenStore(const StoreOptions& options, Access access)
    : layout(LayoutOf(options, access)),
      store(Open(options, layout, access)),
      damaged(store.stats().damaged != 0) {
  if (damaged && access == Access::kChange && !options.eraseDamaged)
    throw Fault(
        "the store {0} is damaged (see above) and takes no changes while this is reported: "
        "`blobring salvage {0} NEW` copies all that can be read into a new store; or restore a "
        "backup, or go on with what is shown by `blobring repack --force {0}`",
        layout.store());
}

std::optional<size_t> SizeOf(const blobring::Store& store, blobring::Hash hash) {
  const int size = BCGetSize(store.index(), hash.data());
  if (size == BLOBRING_SIZE_FAILED)
    throw Fault("cannot look up {}: {}", hash.text(), store.lastFailure());
  return size < 0 ? std::nullopt : std::optional<size_t>(size);
}

void InitTrace() {
  BlobringHostSetTraceSink(
      [](void* /*context*/, int level, const char* /*source*/, const char* text) {
        if (traced.size() < kMaxTraceLines) traced.emplace_back(level, text);
      },
      nullptr);
}

std::vector<std::string> DrainTrace(int maxLevel) {
  std::vector<std::string> lines;
  for (auto& [level, text] : std::exchange(traced, {}))
    if (level <= maxLevel) lines.push_back(std::move(text));
  return lines;
}

std::string Explain(const std::exception& failure) {
  const auto [cause, action, isOfFullDisk] = AdviceFor(failure);
  std::string text = TextOf(failure);
  if (cause.empty()) return text;
  return fmt::format("{}{}{} [{}]", cause, action.empty() ? "" : "; ", action, text);
}

std::string ExplainInLines(const std::exception& failure) {
  const auto [cause, action, isOfFullDisk] = AdviceFor(failure);
  if (!isOfFullDisk) return Explain(failure);
  return fmt::format("{} [{}]\n{}", cause, TextOf(failure), action);
}

}  // namespace tool
