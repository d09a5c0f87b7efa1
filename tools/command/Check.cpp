// check.
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <set>

#include "md5/MD5.h"
#include "pack/format/Format.h"
#include "tools/base/Json.h"
#include "tools/command/Looking.h"
#include "tools/view/Objects.h"
#include "tools/view/Rest.h"
#include "tools/view/SalvageScan.h"

namespace tool {
namespace {

constexpr size_t kBatchBytes = size_t{4} * 1024 * 1024;
constexpr size_t kBatchBlobs = 4096;
constexpr int kMostAttempts = 5;

// Many blobs, digested side by side.
class BlobBatch {
 public:
  BlobBatch(const StoreView& view, std::vector<BlobFault>& faults) : view_(view), faults_(faults) {}

  void Add(const ViewedBlob& blob) {
    if (blob.size >= kBatchBytes) return Judge(blob, Digest(blob));
    if (bytes_.size() + blob.size > kBatchBytes || blobs_.size() == kBatchBlobs) Finish();
    const size_t at = bytes_.size();
    bytes_.resize(at + blob.size);
    view_.file(blob.file).Read(blob.dataOffset(), bytes_.data() + at, blob.size);
    blobs_.push_back(&blob);
  }

  void Finish() {
    std::vector<std::array<uint8_t, format::kHashSize>> digests(blobs_.size());
    std::vector<MD5Message> messages;
    const uint8_t* at = bytes_.data();
    for (size_t i = 0; i < blobs_.size(); ++i) {
      messages.push_back({at, blobs_[i]->size, digests[i].data()});
      at += blobs_[i]->size;
    }
    DigestMany(messages.data(), messages.size());
    for (size_t i = 0; i < blobs_.size(); ++i) Judge(*blobs_[i], blobring::Hash(digests[i]));
    blobs_.clear();
    bytes_.clear();
  }

 private:
  blobring::Hash Digest(const ViewedBlob& blob) const {
    return view_.file(blob.file).Digest(blob.dataOffset(), blob.size);
  }

  void Judge(const ViewedBlob& blob, const blobring::Hash& digest) {
    if (digest != blob.hash)
      faults_.push_back({view_.files()[blob.file].path, blob.offset, blob.hash, blob.size,
                         "does not match its hash"});
  }

  const StoreView& view_;
  std::vector<BlobFault>& faults_;
  std::vector<const ViewedBlob*> blobs_;
  std::vector<uint8_t> bytes_;
};

// What was hit where a file does not read cleanly.
void ScanDamaged(const StoreView& view, size_t index, std::vector<BlobFault>& faults) {
  const std::string& path = view.files()[index].path;
  const Damage& damage = *view.walked(index).damage;
  const SalvageScan scan = Scan(path);
  bool isNamed = false;
  for (const SalvagedRecord& record : scan.records) {
    if (record.kind != SalvagedRecord::Kind::kBroken || record.offset < damage.offset) continue;
    isNamed = true;
    faults.push_back({path, record.offset, record.hash, record.blobSize,
                      "does not match its hash, or is cut off"});
  }
  if (!isNamed) faults.push_back({path, damage.offset, std::nullopt, 0, damage.what});
}

std::vector<BlobFault> HeaderFaults(const StoreOptions& at, size_t& count) {
  std::vector<SlotFile> files;
  std::error_code ignored;
  const bool isStore = std::filesystem::is_directory(at.directory, ignored);
  if (isStore)
    files = LayoutOf(at, Access::kLook).ReadFiles();
  else
    files = {{at.directory, ReadHead(at.directory)}};
  count = files.size();
  const bool isUsed = !isStore || std::any_of(files.begin(), files.end(), [](const SlotFile& file) {
    return file.head.IsUsed();
  });
  std::vector<BlobFault> faults;
  for (const SlotFile& file : files) {
    if (file.head.state == FileHead::State::kMissing && isUsed)
      faults.push_back({file.path, 0, std::nullopt, 0, "missing"});
    if (file.head.state == FileHead::State::kDamaged)
      faults.push_back({file.path, 0, std::nullopt, 0, "damaged header"});
  }
  if (!isStore) return faults;
  for (const auto& [file, text] : FindSwapped(files))
    faults.push_back({files[file].path, 0, std::nullopt, 0, text});
  for (const size_t file : LostPacks(files))
    if (files[file].head.state != FileHead::State::kDamaged)
      faults.push_back({files[file].path, 0, std::nullopt, 0, "lost, maybe the newest pack"});
  return faults;
}

ExitStatus CheckHeaders(const StoreOptions& at) {
  size_t count = 0;
  std::vector<BlobFault> faults = HeaderFaults(at, count);
  if (!faults.empty()) faults = HeaderFaults(at, count);  // a file may have been cut meanwhile
  std::string text;
  for (const BlobFault& fault : faults)
    text += consoleOptions.json ? JsonLine(FaultObject(fault))
                                : fmt::format("{}: {}\n", fault.path, fault.what);
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
      const uint64_t end = file.head.header.endOffset;
      const bool hasRest = file.head.state == FileHead::State::kSound && end < file.head.size;
      if (!hasRest) continue;
      SalvageFile opened(file.path);
      const Rest rest = RestOf(opened, file.head.header, end, [](const auto&, auto) {});
      if (rest.kind != Rest::Kind::kZeros)
        Inform("{} behind the records of {} do not count: {}", Count(rest.size, "byte"), file.path,
               rest.what);
    } else if (file.head.IsUsed() && file.head.state == FileHead::State::kSound &&
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

void SayAdvice(const StoreView& view) {
  Say("`blobring salvage {} NEW` copies all that can be read into a new store, `blobring export` "
      "restores files from what is shown; or restore a backup",
      view.path());
}

}  // namespace

Json FaultObject(const BlobFault& fault) {
  Json object = {{"type", "fault"}, {"file", fault.path}, {"offset", fault.offset},
                 {"hash", nullptr}, {"size", fault.size}, {"what", fault.what}};
  if (fault.hash) object["hash"] = fault.hash->text();
  return object;
}

uint64_t BlobsOnlyIn(const std::vector<std::string>& paths, const StoreView& view) {
  std::set<blobring::Hash> hashes;
  for (const std::string& path : paths)
    for (const SalvagedRecord& record : Scan(path).records)
      if (record.kind == SalvagedRecord::Kind::kBlob && view.Find(record.hash) == nullptr)
        hashes.insert(record.hash);
  return hashes.size();
}

namespace {

// Bytes of a file that was set aside in which there is no record.
uint64_t BytesWithoutRecord(const std::string& path) {
  const SalvageScan scan = Scan(path);
  uint64_t size = 0;
  for (const Ranges* ranges : {&scan.noRecord, &scan.unreadable})
    for (const auto& [begin, end] : *ranges)
      if (begin < scan.committedEnd) size += std::min(end, scan.committedEnd) - begin;
  return size;
}

}  // namespace

// More than a power cut leaves of one commit (TornCommit.h) was lost, if only from an older
// generation.
std::string FaultInSetAside(const std::string& path, const StoreView& view) {
  if (const uint64_t count = BlobsOnlyIn({path}, view); count != 0)
    return fmt::format("set aside by a load, with {} that the store lacks", Count(count, "blob"));
  const uint64_t size = BytesWithoutRecord(path);
  if (size <= format::kBlankAhead) return "";
  return fmt::format(
      "set aside by a load, with {} in which there is no record: what they held is "
      "not known",
      Count(size, "byte"));
}

std::vector<BlobFault> FindFaults(const StoreView& view, bool blobsToo) {
  std::vector<BlobFault> faults;
  for (const size_t slot : view.notShown()) {
    const std::string& pack = view.files()[2 * slot].path;
    std::vector<std::string> paths;
    for (const size_t file : {2 * slot, 2 * slot + 1})
      if (view.files()[file].head.state != FileHead::State::kMissing)
        paths.push_back(view.files()[file].path);
    faults.push_back(
        {pack, 0, std::nullopt, 0,
         fmt::format("{} in {} are not in what is shown", Count(BlobsOnlyIn(paths, view), "blob"),
                     fmt::join(paths, " and "))});
  }
  for (const std::string& path : FilesSetAside(view))
    if (const std::string what = FaultInSetAside(path, view); !what.empty())
      faults.push_back({path, 0, std::nullopt, 0, what});
  for (size_t i = 0; i < view.files().size(); ++i)
    if (view.isWalked(i) && view.walked(i).damage && !view.walked(i).lastIsTorn)
      ScanDamaged(view, i, faults);
  if (!blobsToo) return faults;
  std::vector<const ViewedBlob*> blobs;
  for (const ViewedBlob& blob : view.blobs()) blobs.push_back(&blob);
  std::sort(blobs.begin(), blobs.end(), [](const auto* a, const auto* b) {
    return std::tie(a->file, a->offset) < std::tie(b->file, b->offset);
  });
  Progress progress("checking", blobs.size(), view.liveBytes());
  BlobBatch batch(view, faults);
  for (const ViewedBlob* blob : blobs) {
    batch.Add(*blob);
    progress.Advance(blob->size);
  }
  batch.Finish();
  return faults;
}

ExitStatus Check(const CheckOptions& options) {
  if (options.quick) return CheckHeaders(options.at);
  std::optional<StoreView> opened(options.at);
  std::vector<BlobFault> faults = FindFaults(*opened, !options.structure);
  for (int attempt = 0; !faults.empty() && opened->IsStale(); ++attempt) {
    if (attempt == kMostAttempts)
      throw FailureOf<kHeld>("{} changed each time it was read: another process is at work on it",
                             opened->path());
    opened.emplace(options.at);  // what was read had been overwritten by a repack
    faults = FindFaults(*opened, !options.structure);
  }
  const StoreView& view = *opened;
  const bool sound = faults.empty() && !view.damaged();
  std::string text;
  for (const BlobFault& fault : faults) {
    if (consoleOptions.json)
      text += JsonLine(FaultObject(fault));
    else if (fault.hash)
      text += fmt::format("{} at {}: blob {}, {}, {}\n", fault.path, fault.offset,
                          fault.hash->text(), Count(fault.size, "byte"), fault.what);
    else
      text += fmt::format("{} at {}: {}\n", fault.path, fault.offset, fault.what);
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
    SayAdvice(view);
  else if (!sound)
    Say("`blobring salvage {0} NEW` copies them too into a new store, `blobring clean --delete "
        "--force {0}` gives them up",
        view.path());
  return sound ? kSuccess : kFault;
}

}  // namespace tool
