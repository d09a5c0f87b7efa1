// BlobController: the consistency check. It reports, and changes nothing.
#include <algorithm>
#include <bitset>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

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
  if (checkRunning) return true;
  const bool wasLoaded = IsLoaded();
  // What was closed meanwhile has not been checked whole.
  return CheckAll(ProgressCall{}) == Checked::Sound && IsLoaded() == wasLoaded;
}

BlobController::Checked BlobController::Check() {
  if (checkRunning) throw Failure(FailureCode::Refused, "a check is running");
  if (state != State::Loaded) throw Failure(FailureCode::Closed, "the store is not loaded");
  const auto callOfNow = [this] {
    const std::shared_lock reading(readersLock);
    return progress;
  };
  const Checked checked = CheckAll(callOfNow());
  if (checked != Checked::Faulty && !IsLoaded())
    throw Failure(FailureCode::Closed, "the store was closed during the check");
  return checked;
}

BlobController::Checked BlobController::CheckAll(const ProgressCall& call) {
  const CheckMark mark;
  std::shared_lock reading(readersLock);
  const std::size_t total = blobs.size();
  const Sizes sizes = SizesOf();
  reading.unlock();
  trace::engine.notes.WriteWarnV("BlobController::Fsck number of blobs = %d",
                                 static_cast<int>(total));
  if (total == 0) return Checked::Sound;

  BatchReader batch(sizes.largest, sizes.total, total);
  bool sound = true;
  bool stopped = false;
  try {
    std::size_t position = 0;
    Hash last;
    for (bool isEnd = false; !isEnd && !stopped;) {
      std::bitset<BatchReader::kMaxBlobs> isInPlace;
      batch.Clear();
      reading.lock();
      auto blob = position == 0 ? std::as_const(blobs).begin() : std::as_const(blobs).After(last);
      for (; blob != blobs.end(); ++blob) {
        const bool isAdded = batch.Add(blob->first, blob->second);
        if (isAdded) isInPlace[batch.Count() - 1] = IsInPlace(blob->second);
        // A larger blob than there was has come since the check began.
        if (!isAdded && blob->second.size <= sizes.largest) break;
        last = blob->first;
      }
      isEnd = blob == blobs.end();
      batch.Read();
      reading.unlock();
      batch.Verify();
      for (std::size_t i = 0; i < batch.Count(); ++i, ++position)
        if (!isInPlace[i] || !batch.IsSound(i))
          sound = CheckAlone(batch, i, static_cast<int>(position)) && sound;
      // Blobs may have come and gone.
      const std::size_t done = isEnd ? total : std::min(position, total - 1);
      stopped = call.Stops(ProgressCall::kCheck, done, total) && !isEnd;
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

// Reports what is wrong with a blob that is not where it should be or did not verify, unless a
// commit or a repack has changed its place since it was read.
bool BlobController::CheckAlone(BatchReader& batch, std::size_t i, int position) {
  const std::shared_lock reading(readersLock);
  const auto blob = blobs.Find(batch.HashOf(i));
  if (blob == blobs.end() || !batch.IsAt(i, blob->second)) return true;
  const bool isInPlace = CheckPlace(blob->second);
  const bool isSound = batch.IsSound(i) || CheckBlob(batch, i, blob->second, position);
  if (isInPlace && isSound) return true;
  blob->second.valid = false;
  return false;
}

// Whether a blob lies in one of the current files, or already in the next one.
bool BlobController::IsInPlace(BlobFile::BlobFileEntry const& entry) const {
  if (!entry.file) return false;
  const BlobFilePtr &pack = slots.CurPack(), &journal = slots.CurJournal();
  if (entry.file == pack || entry.file == journal || entry.file == arriving) return true;
  return (pack && entry.file->path == pack->path) || (journal && entry.file->path == journal->path);
}

bool BlobController::CheckPlace(BlobFile::BlobFileEntry const& entry) const {
  if (IsInPlace(entry)) return true;
  trace::engine.WriteErrorV(
      "BlobController::Fsck hash %s incorrect file=%s must be one of these %s %s",
      entry.hash.toString(), PathOf(entry.file), PathOf(slots.CurPack()),
      PathOf(slots.CurJournal()));
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
