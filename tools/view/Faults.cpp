#include "tools/view/Faults.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <set>

#include "tools/base/Console.h"
#include "tools/view/SalvageScan.h"
#include "tools/view/StoreView.h"

namespace tool {
namespace {

// What was hit where a file does not read cleanly.
void ScanDamaged(const StoreView& view, size_t index, std::vector<BlobFault>& faults) {
  const std::string& path = view.files()[index].path;
  const Damage& damage = *view.walked(index).damage;
  const SalvageScan scan = Scan(path);
  bool isNamed = false;
  for (const SalvagedRecord& record : scan.records) {
    if (record.kind != SalvagedRecord::Kind::kBroken || record.offset < damage.offset) continue;
    isNamed = true;
    faults.push_back({path, "does not match its hash, or is cut off", record.offset, record.hash,
                      record.blobSize});
  }
  if (!isNamed) faults.push_back({path, damage.what, damage.offset});
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

uint64_t BytesWithoutRecord(const std::string& path) {
  const SalvageScan scan = Scan(path);
  uint64_t size = 0;
  for (const Ranges* ranges : {&scan.noRecord, &scan.unreadable})
    for (const auto& [begin, end] : *ranges)
      if (begin < scan.committedEnd) size += std::min(end, scan.committedEnd) - begin;
  return size;
}

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
      if (view.files()[file].status.state != FileStatus::State::kMissing)
        paths.push_back(view.files()[file].path);
    faults.push_back(
        {pack, fmt::format("missing from what is shown: {} of {}",
                           Count(BlobsOnlyIn(paths, view), "blob"), fmt::join(paths, " and "))});
  }
  for (const std::string& path : FilesSetAside(view))
    if (const std::string what = FaultInSetAside(path, view); !what.empty())
      faults.push_back({path, what});
  for (size_t i = 0; i < view.files().size(); ++i)
    if (view.isWalked(i) && view.walked(i).damage && !view.walked(i).lastIsTorn)
      ScanDamaged(view, i, faults);
  if (!faults.empty()) view.RequireSteady();
  if (!blobsToo) return faults;
  const std::vector<const ViewedBlob*> blobs = view.InFileOrder();
  Progress progress("checking", blobs.size(), view.liveBytes());
  Buffer buffer;
  for (std::span<const ViewedBlob* const> rest = blobs; !rest.empty();)
    for (const ReadBlob& read : view.ReadSome(rest, buffer)) {
      const ViewedBlob& blob = *read.blob;
      try {
        read.HandTo([](std::string_view) {});
      } catch (const DamagedBlob&) {
        faults.push_back({view.files()[blob.file].path, "does not match its hash", blob.offset,
                          blob.hash, blob.size});
      }
      progress.Advance(blob.size);
    }
  return faults;
}

}  // namespace tool
