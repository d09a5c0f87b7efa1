#include "tools/Open.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <utility>

#include "blobring/host.h"
#include "tools/Error.h"
#include "tools/SlotFiles.h"

namespace tool {
namespace {

constexpr size_t kMaxTraceLines = 1000;

TraceLines* listener = nullptr;

void TakeLine(void* /*context*/, int level, const char* /*source*/, const char* text) {
  if (listener == nullptr || listener->lines.size() == kMaxTraceLines) return;
  if (level == BLOBRING_HOST_ERROR || listener->least == TraceLines::Level::kWarnings)
    listener->lines.emplace_back(text);
}

// Opening a store without any pack that can be loaded, for a change, moves all
// its files aside. That is refused where the headers alone show it.
void RequireLoadable(const Layout& layout) {
  const std::vector<SlotFile> files = ReadSlotFiles(layout);
  bool isUsed = false;
  for (size_t i = 0; i < files.size(); i += 2) {
    if (files[i].IsLoadable()) return;
    isUsed = isUsed || files[i].state != SlotFile::State::kMissing;
  }
  const SlotFile& pack = files.front();
  if (isUsed)
    throw Fault(fmt::format(
        "no pack can be loaded: the header of {} is damaged (sequence {}, {} of {} bytes in use); "
        "nothing was changed. `blobring salvage {} NEW` copies what can be read into a new store; "
        "or "
        "restore a backup",
        pack.path, pack.header.sequence, pack.header.endOffset, pack.size, layout.store()));
}

blobring::Store Open(const StoreOptions& options, const Layout& layout, Access access) {
  blobring::Options raw;
  for (size_t slot = 0; slot < layout.slotCount(); ++slot)
    raw.packDirectories.emplace_back(layout.PackDir(slot));
  raw.eraseDamaged = options.eraseDamaged;
  raw.mustExist = access != Access::kCreate;
  raw.readOnly = access == Access::kLook;
  if (!raw.readOnly && !raw.eraseDamaged) RequireLoadable(layout);
  const bool hasFiles = Layout::CountJournals(layout.store()) != 0;
  const TraceLines trace(TraceLines::Level::kWarnings);
  try {
    blobring::Store store(layout.store(), raw);
    for (const std::string& line : trace.lines) Say(line);
    return store;
  } catch (const blobring::Error& error) {
    const bool isErased = hasFiles && Layout::CountJournals(layout.store()) == 0;
    for (const std::string& line : trace.lines)
      if (isErased || error.code() == BLOBRING_ERROR_DAMAGED) Say(line);
    if (!isErased) throw;
  }
  Say(fmt::format("the store {} was erased and is empty now", layout.store()));
  raw.mustExist = false;
  return blobring::Store(layout.store(), raw);
}

// The number behind "GetLastError" in a message of the library; 0 without one.
int SystemCode(std::string_view text) {
  const size_t mark = text.find("GetLastError");
  const size_t digit =
      mark == std::string_view::npos ? mark : text.find_first_of("0123456789", mark);
  int code = 0;
  if (digit != std::string_view::npos)
    std::from_chars(text.data() + digit, text.data() + text.size(), code);
  return code;
}

// What a user can do; null for nothing in particular.
const char* AdviceFor(std::string_view text, int code) {
  if (code == BLOBRING_ERROR_HELD)
    return "another process has the store open; wait until it is done and try again";
  if (text.find("no room for") != std::string_view::npos)
    return "the journal is full; run `blobring repack` and try again, what was committed is safe";
  // Codes of the Win32 API reference.
  switch (SystemCode(text)) {
    case 4:
      return "too many files are open; raise the limit (ulimit -n)";
    case 5:
      return "permission is denied; look at the owner and mode of the store's files";
    case 8:
      return "memory is short";
    case 19:
      return "the file system is read-only";
    case 39:
    case 112:
      return "the disk is full; free some space and try again, what was committed is safe";
    case 223:
      return "a file may not grow further; look at the limit on file sizes (ulimit -f)";
    case 1117:
      return "the disk reports an error; look at the system's log";
    default:
      return nullptr;
  }
}

}  // namespace

Layout LayoutOf(const StoreOptions& options, Access access) {
  const std::string& store = options.directory;
  const bool isSaid = options.slotCount != 0 || !options.packDirs.empty();
  if (access == Access::kCreate) return Layout(store, options.slotCount, options.packDirs);
  if (access != Access::kLook || (!isSaid && Layout::Exists(store))) return Layout::Read(store);
  const size_t slotCount =
      options.slotCount != 0 ? options.slotCount : Layout::CountJournals(store);
  if (slotCount == 0) return Layout::Read(store);  // which says that there is no store
  Layout said(store, slotCount, options.packDirs);
  if (Layout::Exists(store) && !said.SameSlots(Layout::Read(store)))
    throw UsageError(fmt::format("{} has {}", store, Layout::Read(store).Description()));
  return said;
}

OpenStore::OpenStore(const StoreOptions& options, Access access)
    : layout(LayoutOf(options, access)),
      store(Open(options, layout, access)),
      damaged(store.stats().damaged != 0) {
  if (damaged && access == Access::kChange && !options.eraseDamaged)
    throw Fault(fmt::format(
        "the store {0} is damaged (see above) and takes no changes while this is reported: "
        "`blobring salvage {0} NEW` copies all that can be read into a new store; or restore a "
        "backup, or go on with what is shown by `blobring repack --force {0}`",
        layout.store()));
}

std::optional<size_t> SizeOf(const blobring::Store& store, blobring::Hash hash) {
  const int size = BCGetSize(store.index(), hash.data());
  if (size < -1)
    throw Fault(fmt::format("cannot look up {}: {}", hash.text(), store.lastFailure()));
  return size < 0 ? std::nullopt : std::optional<size_t>(size);
}

Bytes OpenStore::Fetch(const blobring::Hash& hash, Buffer& buffer, size_t used) const {
  const std::optional<size_t> size = SizeOf(store, hash);
  if (!size) throw Fault(fmt::format("{} has no blob {}", layout.store(), hash.text()));
  const std::span<unsigned char> to(buffer.Reserve(used + *size + 1) + used, *size);
  try {
    store.get(hash, std::as_writable_bytes(to));
  } catch (const blobring::Error& error) {
    throw Fault(fmt::format("cannot read the blob {}: {}", hash.text(), Explain(error)));
  }
  return to;
}

TraceLines::TraceLines(Level leastLevel) : least(leastLevel) {
  listener = this;
}

TraceLines::~TraceLines() {
  listener = nullptr;
}

void TakeTrace() {
  BlobringHostSetTraceSink(TakeLine, nullptr);
}

std::string Explain(const blobring::Error& error) {
  constexpr std::string_view kPrefix = "blobring: ";
  std::string_view text = error.what();
  if (text.starts_with(kPrefix)) text.remove_prefix(kPrefix.size());
  const char* advice = AdviceFor(text, error.code());
  text = text.substr(0, text.find('\n'));
  return advice == nullptr ? std::string(text) : fmt::format("{}; {}", text, advice);
}

}  // namespace tool
