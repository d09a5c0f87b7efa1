// BlobController: the consistency check. It reports, and changes nothing.
#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

#include "pack/BatchReader.h"
#include "platform/Failure.h"
#include "platform/Trace.h"
#include "store/BlobController.h"

namespace {

// One check at a time on a thread: a fault met by a check does not start another.
thread_local bool checkRunning = false;

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

BlobController::Sizes BlobController::SizesOf() const {
  Sizes sizes;
  for (const auto& [hash, entry] : blobs) sizes.Add(entry.size);
  return sizes;
}

void BlobController::ForgetCheck() noexcept {
  checkRunning = false;
}

bool BlobController::Fsck() {
  return checkRunning || CheckAll(ProgressCall{}) == Checked::Sound;
}

BlobController::Checked BlobController::Check() {
  if (checkRunning) throw Failure(FailureCode::Refused, "a check is running");
  if (state != State::Loaded) throw Failure(FailureCode::Closed, "the store is not loaded");
  return CheckAll(progress);
}

BlobController::Checked BlobController::CheckAll(const ProgressCall& call) {
  const CheckMark mark;
  trace::engine.notes.WriteWarnV("BlobController::Fsck number of blobs = %d",
                                 static_cast<int>(blobs.size()));
  if (blobs.empty()) return Checked::Sound;

  const Sizes sizes = SizesOf();
  BatchReader batch(sizes.largest, sizes.total, blobs.size());
  bool sound = true;
  bool stopped = false;
  try {
    int position = 0;
    for (auto blob = blobs.begin(); blob != blobs.end() && !stopped;) {
      auto next = blob;
      batch.Clear();
      while (next != blobs.end() && batch.Add(next->first, next->second)) ++next;
      batch.Verify();
      for (std::size_t i = 0; i < batch.Count(); ++i, ++blob, ++position) {
        const bool isInPlace = CheckPlace(blob->first, blob->second);
        const bool isSound = batch.IsSound(i) || CheckBlob(batch, i, blob->second, position);
        if (isInPlace && isSound) continue;
        sound = blob->second.valid = false;
      }
      stopped =
          call.Stops(ProgressCall::kCheck, static_cast<std::uint64_t>(position), blobs.size()) &&
          blob != blobs.end();
    }
  } catch (const std::runtime_error&) {
    sound = false;
  }
  if (!sound) {
    trace::engine.CaughtErrorV(Failure(FailureCode::Damaged),
                               "BlobController::Fsck() storage is corrupted");
    return Checked::Faulty;
  }
  return stopped ? Checked::Stopped : Checked::Sound;
}

// Whether a blob lies in one of the current files.
bool BlobController::CheckPlace(const Hash& hash, BlobFile::BlobFileEntry const& entry) const {
  if (entry.file && (entry.file == slots.CurPack() || entry.file == slots.CurJournal()))
    return true;
  const std::string file = PathOf(entry.file);
  if (entry.file && (file == PathOf(slots.CurPack()) || file == PathOf(slots.CurJournal())))
    return true;
  trace::engine.WriteErrorV(
      "BlobController::Fsck hash %s incorrect file=%s must be one of these %s %s", hash.toString(),
      file, PathOf(slots.CurPack()), PathOf(slots.CurJournal()));
  return false;
}

// Reports what is wrong with a blob that did not verify. The store stays open and the check goes
// on.
bool BlobController::CheckBlob(BatchReader& batch, std::size_t i,
                               BlobFile::BlobFileEntry const& entry, int position) {
  BlobPair pair;
  const std::string file = PathOf(entry.file);
  try {
    if (batch.Decode(i, pair)) return true;
    trace::engine.WriteErrorV(
        "BlobController::GetBlob error in curPack.GetBlob file %s offset %d size %d hash %s", file,
        entry.offset, entry.size, entry.hash.toString());
    // What the buffer holds, of this or of other blobs, must not decide.
    if (entry.size > 0) std::memset(pair.buffer.data, 0, entry.size);
    pair.isValid();
  } catch (const std::exception& e) {
    trace::engine.CaughtErrorV(e,
                               "BlobController::GetBlob() threw an exception %s file=%s offset=%d",
                               e.what(), file, entry.offset);
  }
  const std::string line = "Fsck: Blob Entry :hash=" + entry.hash.toString() +
                           " transId=" + std::to_string(entry.transactionId) +
                           " size=" + std::to_string(entry.size) +
                           " offset=" + std::to_string(entry.offset) +
                           " count = " + std::to_string(position) + " filename=" + file;
  trace::engine.WriteErrorV("%s", line);
  trace::engine.WriteErrorV("BlobController::Fsck() Blob %s is corrupt", entry.hash.toString());
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
