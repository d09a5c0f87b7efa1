#include "tools/Salvage.h"

#include <fmt/format.h>

#include <filesystem>
#include <optional>
#include <set>

#include "tools/BatchWriter.h"
#include "tools/Commands.h"
#include "tools/Console.h"
#include "tools/Fd.h"
#include "tools/Open.h"
#include "tools/SalvageReport.h"
#include "tools/SalvageSet.h"

namespace tool {
namespace {

using Kind = SalvagedRecord::Kind;

// A journal ends below 2 GiB; what is in it moves to a pack before that.
constexpr uint64_t kMaxJournalBytes = uint64_t{2} * 1024 * 1024 * 1024 - uint64_t{1024} * 1024;

struct Recovered {
  uint64_t blobCount = 0;
  uint64_t byteCount = 0;
  uint64_t liveCount = 0;
  uint64_t passedOver = 0;  // not live, with liveOnly
  uint64_t goneCount = 0;   // read once, and not the second time
};

// Copies blobs into the new store, each once.
class Recovery {
 public:
  Recovery(blobring::Store& store, const SalvageSet& set, bool liveOnly)
      : store_(store), set_(set), liveOnly_(liveOnly && set.live()), writer_(store, lines_) {}

  Recovered Run() {
    for (const SalvagedFile& file : set_.files())
      if (file.scan) CopyFrom(file);
    writer_.Commit();
    return result_;
  }

 private:
  bool IsLive(const Hash& hash) const { return set_.live() && set_.live()->count(hash) != 0; }

  void CopyFrom(const SalvagedFile& from) {
    std::optional<SalvageFile> file;
    for (const SalvagedRecord& record : from.scan->records) {
      if (record.kind != Kind::kBlob || done_.count(record.hash) != 0) continue;
      if (liveOnly_ && !IsLive(record.hash)) {
        if (passedOver_.insert(record.hash).second) ++result_.passedOver;
        continue;
      }
      if (!file) file.emplace(from.path);
      Copy(*file, record);
    }
  }

  // The file may have changed since it was scanned, so the hash is taken anew.
  void Copy(SalvageFile& file, const SalvagedRecord& record) {
    unsigned char* data = buffer_.Reserve(std::max<size_t>(record.blobSize, 1));
    if (record.end() > file.size() || file.Digest(record.dataOffset(), record.blobSize) != record.hash)
      return NoteGone(file, record);
    file.Read(record.dataOffset(), data, record.blobSize);
    MakeRoom(format::kStoreHeadSize + format::kStartSize + format::kEndSize + record.blobSize);
    const Hash stored = writer_.Add({data, record.blobSize}, record.hash.text()).hash;
    if (stored != record.hash) return NoteGone(file, record);
    done_.insert(stored);
    ++result_.blobCount;
    result_.byteCount += record.blobSize;
    if (IsLive(stored)) ++result_.liveCount;
  }

  void NoteGone(const SalvageFile& file, const SalvagedRecord& record) {
    ++result_.goneCount;
    Say(fmt::format("{} changed: blob {} is no longer at {:#x}", file.path(), record.hash.text(), record.offset));
  }

  void MakeRoom(uint64_t bytes) {
    if (journalBytes_ + bytes > kMaxJournalBytes) {
      writer_.Commit();
      store_.repack();
      journalBytes_ = 0;
    }
    journalBytes_ += bytes;
  }

  blobring::Store& store_;
  const SalvageSet& set_;
  bool liveOnly_;
  std::string lines_;
  BatchWriter writer_;
  Buffer buffer_;
  std::set<Hash> done_;
  std::set<Hash> passedOver_;
  uint64_t journalBytes_ = 0;
  Recovered result_;
};

void RequireEmpty(const std::string& store) {
  std::error_code code;
  if (std::filesystem::exists(store, code) && !std::filesystem::is_empty(store, code))
    throw UsageError(fmt::format("{} is there and not an empty directory; nothing was written", store));
}

void PrintLive(const SalvageSet& set, bool liveOnly) {
  if (set.live())
    Print(fmt::format("newest generation: {}, sequence {}, {} found\n", set.newestPack()->path,
                      set.newestPack()->scan->header.header.sequence, Count(set.live()->size(), "live blob")));
  else
    Print(fmt::format("which blobs are live cannot be told{}\n", liveOnly ? "; all are taken" : ""));
}

Recovered MakeStore(const SalvageSet& set, const SalvageOptions& options) {
  try {
    Init({options.store, 0, {}, false});
    OpenStore open({options.store, 0, {}, false}, Access::kChange);
    return Recovery(open.store, set, options.liveOnly).Run();
  } catch (const std::runtime_error& fault) {
    throw Fault(
        fmt::format("salvage did not come to its end: {}; {} has what was committed by then, remove it before "
                    "the next attempt",
                    fault.what(), options.store));
  }
}

}  // namespace

ExitStatus Salvage(const SalvageOptions& options) {
  RequireEmpty(options.store);
  const SalvageSet set(options.directory, options.packDirs);
  bool sound = PrintSalvagedFiles(set);
  PrintLive(set, options.liveOnly);
  const Recovered recovered = MakeStore(set, options);
  std::string text = fmt::format("recovered: {}, {} bytes", Count(recovered.blobCount, "blob"), recovered.byteCount);
  if (set.live())
    text += fmt::format("; {} live, {} only found", recovered.liveCount, recovered.blobCount - recovered.liveCount);
  if (recovered.passedOver != 0) text += fmt::format("; {} left behind", recovered.passedOver);
  Print(text + "\n");
  sound = sound && recovered.goneCount == 0;
  const ExitStatus checked = Check({options.store, 0, {}, false});
  Print(sound ? "no damage was found\n" : "something is damaged or beyond recovery, see above\n");
  return sound ? checked : kFault;
}

}  // namespace tool
