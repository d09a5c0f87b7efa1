// How cost per blob grows with the number of blobs.
#include <blobring/host.h>
#include <fmt/format.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

#include "bench/Require.h"
#include "bench/Workloads.h"

namespace bench {

namespace {

constexpr std::size_t kPerTransaction = 10000;

double ResidentBytes() {
  std::ifstream statm("/proc/self/statm");
  double total = 0;
  double resident = 0;
  statm >> total >> resident;
  return resident * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

// What the library has taken from the system, the memory manager's reserve
// included.
double LibraryBytes() {
  BlobringHostMemoryUse use;
  BlobringHostMemoryTotal(&use);
  return static_cast<double>(use.systemBytes);
}

void PutAll(Store& store, const Blobs& blobs) {
  std::vector<Key> keys(kPerTransaction);
  for (std::size_t first = 0; first < blobs.Count(); first += kPerTransaction)
    store.Put(blobs.All().subspan(first, std::min(kPerTransaction, blobs.Count() - first)), keys.data());
}

ScalePoint MeasurePoint(const Contender& contender, const Blobs& blobs, const std::filesystem::path& directory) {
  std::filesystem::remove_all(directory);
  std::filesystem::create_directories(directory);
  const std::unique_ptr<Store> store = contender.make(directory);
  ScalePoint point = {.name = contender.name, .blobCount = blobs.Count(), .put = {}, .open = {}, .get = {}, .size = {}};
  const std::vector<std::size_t> picks = RandomPicks(kScaleReads, blobs.Count(), 31);

  store->Open();
  point.put = Measure([&] { PutAll(*store, blobs); });
  WaitForHelperThreads();
  store->Close();
  ::malloc_trim(0);

  const double residentBefore = ResidentBytes();
  const double libraryBefore = LibraryBytes();
  point.open = Measure([&] { store->Open(); });
  point.indexBytes = (LibraryBytes() - libraryBefore) / static_cast<double>(blobs.Count());
  point.processBytes = (ResidentBytes() - residentBefore) / static_cast<double>(blobs.Count());
  WaitForHelperThreads();

  std::string out;
  point.get = Measure([&] {
    for (const std::size_t i : picks) store->GetVerified(blobs.Keys()[i], out);
  });
  point.size = Measure([&] {
    for (const std::size_t i : picks) Require(store->SizeOf(blobs.Keys()[i]) >= 0, "scaling", "finding a blob");
  });
  store->Close();
  std::filesystem::remove_all(directory);
  return point;
}

}  // namespace

std::vector<ScalePoint> MeasureScaling(const Extent& extent, const std::filesystem::path& directory,
                                       const std::vector<std::string>& only) {
  const std::vector<std::string> names = {kBlobring, kLmdb, kLevelDb};
  std::vector<ScalePoint> points;
  for (const std::size_t full : {10000, 100000, 1000000}) {
    const std::size_t count = std::max<std::size_t>(full / extent.divisor, 1000);
    const Blobs blobs(count, kScaleBlobSize, 6);
    for (const Contender& contender : AllContenders()) {
      const auto has = [&](const std::vector<std::string>& list) {
        return std::find(list.begin(), list.end(), contender.name) != list.end();
      };
      if (!has(names) || (!only.empty() && !has(only))) continue;
      ShowProgress(fmt::format("scaling: {}, {}", count, contender.name));
      points.push_back(MeasurePoint(contender, blobs, directory));
    }
  }
  ShowProgress("");
  return points;
}

}  // namespace bench
