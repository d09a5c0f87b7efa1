// Calls for embedders that cannot take exceptions, or ask before they know.
// Nothing leaves them but their result.
#include <blobring/blobring.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <exception>
#include <string>

#include "api/Arguments.h"
#include "api/Registry.h"
#include "platform/FailureText.h"

namespace {

// Sizes of the structures' first versions.
constexpr std::uint32_t kOptionsSize = sizeof(BCOptions);
constexpr std::uint32_t kStatisticsSize = sizeof(BCStatistics);

// A path of bytes, as the calls with UTF-16 take it.
std::u16string Widen(const char* path) {
  std::u16string wide;
  for (; *path != 0; ++path) wide.push_back(static_cast<unsigned char>(*path));
  return wide;
}

// Takes over what a caller says, which may be nothing. False, after a
// message, when that makes no sense.
bool ReadOptions(const BCOptions* given, BCOptions& options) {
  options = {kOptionsSize, 0, nullptr, 0, nullptr, nullptr};
  if (given == nullptr) return true;
  if (given->size < kOptionsSize) {
    trace::api.WriteWarnV("BCOpen: options->size = %u, must be %u", given->size, kOptionsSize);
    return false;
  }
  std::memcpy(&options, given, kOptionsSize);
  if (options.packDirs == nullptr) return true;
  if (options.slotCount == 0) {
    trace::api.WriteWarnV("BCOpen: packDirs needs slotCount");
    return false;
  }
  return std::none_of(options.packDirs, options.packDirs + options.slotCount,
                      [](const char* dir) { return api::IsNull("BCOpen", "packDirs", dir); });
}

// Adds the slots and loads.
bool LoadStore(int index, const char* directory, const BCOptions& options) {
  constexpr std::uint32_t kDefaultSlots = 2;
  const std::uint32_t slotCount = options.slotCount != 0 ? options.slotCount : kDefaultSlots;
  for (std::uint32_t slot = 0; slot < slotCount; ++slot) {
    const char* dir = options.packDirs != nullptr ? options.packDirs[slot] : directory;
    if (BCAddPackDir(index, Widen(dir).c_str()) != 1) return false;
  }
  BCSetDamagePolicy(index, options.eraseDamaged != 0 ? BLOBRING_DAMAGE_ERASE : BLOBRING_DAMAGE_KEEP);
  BCSetProgress(index, options.progress, options.progressContext);
  return BCLoad(index) == 1;
}

}  // namespace

const char* BCVersion() {
  return BLOBRING_VERSION;
}

int BCOpen(const char* directory, const BCOptions* given) {
  registry::NoStore();
  if (api::IsNull("BCOpen", "directory", directory)) return -1;
  BCOptions options;
  if (!ReadOptions(given, options)) return -1;
  int index = -1;
  try {
    index = BCInitialize(Widen(directory).c_str());
    if (LoadStore(index, directory, options)) return index;
  } catch (const std::exception& e) {
    trace::api.WriteWarnV("BCOpen threw an exception:%s", e.what());
  }
  if (index < 0) return -1;
  // The reason outlives the store, and counts more than how it was closed.
  char reason[trace::FailureText::kCapacity];
  BCLastError(index, reason, sizeof reason);
  BCDispose(index);
  trace::ProcessFailures().Replace(reason);
  return -1;
}

int BCSetProgress(int index, BCProgress* progress, void* context) {
  BlobController* store = registry::Find("BCSetProgress", index);
  if (store == nullptr) return 0;
  store->SetProgress({progress, context});
  return 1;
}

int BCAbandonTransaction(int index) {
  BlobController* store = registry::Find("BCAbandonTransaction", index);
  if (store == nullptr) return 0;
  store->AbandonPending();
  return 1;
}

int BCFetch(int index, const unsigned char* hash, unsigned char* buffer, int capacity, int* size) {
  if (size != nullptr) *size = 0;
  BlobController* store = registry::Find("BCFetch", index);
  if (store == nullptr || api::IsNull("BCFetch", "hash", hash) || api::IsNull("BCFetch", "size", size))
    return BLOBRING_FAILED;
  if (capacity < 0) {
    trace::api.WriteWarnV("BCFetch: capacity = %d is negative", capacity);
    return BLOBRING_FAILED;
  }
  if (capacity > 0 && api::IsNull("BCFetch", "buffer", buffer)) return BLOBRING_FAILED;
  try {
    const Hash key = api::ToHash(hash);
    trace::WriteHashEvent(trace::kEventGet, key.Bytes());
    std::uint32_t blobSize = 0;
    const BlobController::Fetched fetched = store->Fetch(key, buffer, api::Word(capacity), blobSize);
    switch (fetched) {
      case BlobController::Fetched::NotFound:
        return BLOBRING_NOT_FOUND;
      case BlobController::Fetched::Failed:
        return BLOBRING_FAILED;
      case BlobController::Fetched::Read:
      case BlobController::Fetched::TooSmall:
        break;
    }
    *size = static_cast<int>(blobSize);
    return fetched == BlobController::Fetched::Read ? BLOBRING_FETCHED : BLOBRING_TOO_SMALL;
  } catch (const std::exception& e) {
    trace::api.WriteWarnV("BCFetch threw an exception:%s", e.what());
    return BLOBRING_FAILED;
  }
}

int BCNextHash(int index, const unsigned char* after, unsigned char* next) {
  BlobController* store = registry::Find("BCNextHash", index);
  if (store == nullptr || api::IsNull("BCNextHash", "next", next)) return -1;
  if (!store->IsLoaded()) {
    trace::api.WriteWarnV("BCNextHash: the store is not loaded");
    return -1;
  }
  if (after == nullptr) return store->NextHashAfter(nullptr, next);
  const Hash from = api::ToHash(after);
  return store->NextHashAfter(&from, next);
}

int BCCheck(int index) {
  BlobController* store = registry::Find("BCCheck", index);
  if (store == nullptr) return BLOBRING_CHECK_FAILED;
  try {
    switch (store->Check()) {
      case BlobController::Checked::Sound:
        return BLOBRING_CHECK_SOUND;
      case BlobController::Checked::Faulty:
        return BLOBRING_CHECK_FAULTY;
      case BlobController::Checked::Stopped:
        return BLOBRING_CHECK_STOPPED;
    }
  } catch (const std::exception& e) {
    trace::api.WriteWarnV("BCCheck threw an exception:%s", e.what());
  }
  return BLOBRING_CHECK_FAILED;
}

int BCGetStatistics(int index, BCStatistics* statistics) {
  BlobController* store = registry::Find("BCGetStatistics", index);
  if (store == nullptr || api::IsNull("BCGetStatistics", "statistics", statistics)) return 0;
  const std::uint32_t size = statistics->size;
  if (size < kStatisticsSize) {
    trace::api.WriteWarnV("BCGetStatistics: size = %u, must be %u", size, kStatisticsSize);
    return 0;
  }
  const BlobController::Statistics of = store->GetStatistics();
  const BCStatistics filled = {size,         of.loaded,       of.inDoubt,       of.sequence,
                               of.slotCount, of.largestBlob,  of.blobCount,     of.liveBytes,
                               of.packBytes, of.journalBytes, of.repackedBytes, of.pendingCount};
  std::memset(statistics, 0, size);
  std::memcpy(statistics, &filled, kStatisticsSize);
  return 1;
}

int BCLastError(int index, char* buffer, int capacity) {
  const std::string_view text = registry::Failures(index).Text();
  if (buffer != nullptr && capacity > 0) {
    const std::size_t length = std::min(text.size(), static_cast<std::size_t>(capacity) - 1);
    std::memcpy(buffer, text.data(), length);
    buffer[length] = '\0';
  }
  return static_cast<int>(text.size());
}
