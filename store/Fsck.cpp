// BlobController: the consistency check. It reports, and changes nothing.
#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

#include "platform/Trace.h"
#include "store/BlobController.h"

namespace {

// One check at a time in the whole process: a fault met by a check does not
// start another.
bool checkRunning = false;

class CheckMark {
 public:
  CheckMark() { checkRunning = true; }
  CheckMark(const CheckMark&) = delete;
  CheckMark& operator=(const CheckMark&) = delete;
  ~CheckMark() { checkRunning = false; }
};

std::string PathOf(const boost::shared_ptr<BlobFile>& file) {
  return file ? file->path : std::string();
}

}  // namespace

std::uint32_t BlobController::LargestBlob() const {
  std::uint32_t largest = 0;
  for (const auto& [hash, entry] : blobs) largest = std::max(largest, entry.size);
  return largest;
}

bool BlobController::Fsck() {
  if (checkRunning) return true;
  const CheckMark mark;
  trace::engine.WriteWarnV("BlobController::Fsck number of blobs = %d", static_cast<int>(blobs.size()));

  std::vector<unsigned char, BlobAllocator<unsigned char, TesselMemoryManager::kContainerPool, kTagBytes>> buffer;
  buffer.resize(LargestBlob());
  bool sound = true;
  try {
    int position = 0;
    for (auto blob = blobs.cbegin(); blob != blobs.cend(); ++blob, ++position)
      sound = CheckBlob(blob, buffer.data(), position) && sound;
  } catch (const std::runtime_error&) {
    sound = false;
  }
  if (!sound) trace::engine.WriteErrorV("BlobController::Fsck() storage is corrupted");
  return sound;
}

bool BlobController::CheckBlob(Index::const_iterator blob, unsigned char* buffer, int position) const {
  const auto& [hash, entry] = *blob;
  const std::string file = PathOf(entry.file);
  bool sound = true;
  if (!entry.file || (file != PathOf(curPack) && file != PathOf(curJournal))) {
    trace::engine.WriteErrorV("BlobController::Fsck hash %s incorrect file=%s must be one of these %s %s",
                              hash.toString().c_str(), file.c_str(), PathOf(curPack).c_str(),
                              PathOf(curJournal).c_str());
    sound = false;
  }

  BlobPair pair;
  pair.hash = hash;
  pair.buffer = {buffer, entry.size};
  bool wasRead = false;
  try {
    wasRead = entry.file && ReadBlob(pair, entry);
  } catch (const std::exception& e) {
    trace::engine.WriteErrorV("BlobController::GetBlob() threw an exception %s file=%s offset=%d", e.what(),
                              file.c_str(), static_cast<int>(entry.offset));
  }
  if (wasRead) return sound;

  // Not what the buffer held before decides, but that nothing was read.
  if (entry.size > 0) std::memset(buffer, 0, entry.size);
  pair.hash = hash;
  pair.isValid();
  const std::string line = "Fsck: Blob Entry :hash=" + hash.toString() +
                           " transId=" + std::to_string(entry.transactionId) + " size=" + std::to_string(entry.size) +
                           " offset=" + std::to_string(entry.offset) + " count = " + std::to_string(position) +
                           " filename=" + file;
  trace::engine.WriteErrorV("%s", line.c_str());
  trace::engine.WriteErrorV("BlobController::Fsck() Blob %s is corrupt", hash.toString().c_str());
  return false;
}

// For the log only; the failure that led here is the one that counts.
void BlobController::CheckAfterFailure() {
  try {
    Fsck();
  } catch (const std::exception& e) {
    trace::engine.WriteErrorV("%s", e.what());
  }
}
