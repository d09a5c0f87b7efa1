// BlobController: writing the next generation.
//
// At every moment the disk holds one whole generation that a load will find. With two slots or more
// the new one goes into the next slot, whose files are emptied first; the header of its pack,
// written and flushed after all that it counts, makes it the newest. Where the next slot is the
// current one, as with a single slot, it goes into a file beside the pack, which then takes the
// pack's place in one step; only then is the current journal emptied: replayed over the new pack,
// it gives the same blobs.
#include <algorithm>
#include <limits>
#include <string>

#include "fs/FileSystem.h"
#include "pack/BatchReader.h"
#include "pack/format/FileNames.h"
#include "pack/format/Generation.h"
#include "platform/Failure.h"
#include "platform/Trace.h"
#include "store/BlobController.h"

namespace {

// Leaves a repack that the embedder stopped. No std::exception: it is no failure.
struct Stopped {};

// Gives back what a repack that did not commit has written: a slot's pack stays as it was emptied,
// older than any generation; a file beside the pack goes.
void DropUnfinished(boost::shared_ptr<BlobFile>& file, bool isSlot) {
  if (!file) return;
  try {
    if (isSlot) {
      file->AbandonTransaction();
      file->SetSequence(format::kSequenceReset);
    } else if (file->file.IsOpen()) {
      const std::string path = file->path;
      file.reset();  // a file that is open cannot be deleted
      // What has this name was left by a repack that was interrupted, or put there by someone else.
      FileSystem::RemoveLeftover(path);
    }
  } catch (const std::exception& e) {
    trace::engine.WriteErrorV("%s", e.what());
  }
}

void DumpEntries(const BlobFile::Entries& entries, std::size_t failed) {
  trace::engine.WriteErrorV(
      "%s", Text("BlobController::Repack() Invalid Blob Detected. Failed on index[", failed,
                 "]. BlobEntries table dump. Dumping [", entries.size(), "] entries."));
  trace::engine.WriteErrorV("file.path, file offset, blob size");
  for (const BlobFile::BlobFileEntry& entry : entries)
    trace::engine.WriteErrorV("%s", Text(entry.file->path, ", ", entry.offset, ", ", entry.size));
}

}  // namespace

bool BlobController::sortByTransaction(BlobFile::BlobFileEntry const& a,
                                       BlobFile::BlobFileEntry const& b) {
  if (a.transactionId != b.transactionId) return a.transactionId < b.transactionId;
  return a.hash < b.hash;
}

// Bytes of a pack that holds the blobs of the index.
std::uint64_t BlobController::RepackedSize(const Sizes& sizes) const {
  return format::kFileHeaderSize + format::kStartSize + format::kEndSize + sizes.total +
         std::uint64_t{format::kStoreHeaderSize} * blobs.size();
}

// Throws why not.
void BlobController::RequireRepackable() const {
  if (slots.empty()) throw Failure(FailureCode::Refused, "the store has no slot");
  if (state != State::Loaded && refusal.code == FailureCode::None)
    throw Failure(FailureCode::Closed, "the store is not loaded");
  RequireChangeable();
  if (!pending.empty())
    throw Failure(FailureCode::Refused, "changes are pending, end the transaction first");
  if (RepackedSize(SizesOf()) > format::kMaxFileSize)
    throw Failure(FailureCode::Full, "the blobs do not fit into one pack of 2147483647 bytes");
  // A store never writes a negative sequence. From -2 the next pack would get -1, which means
  // "emptied"; from any other, an emptied pack (-1) would look newer.
  if (seq < 0) throw Failure(FailureCode::Refused, "the sequence number of the pack is negative");
  if (seq == std::numeric_limits<std::int32_t>::max())
    throw Failure(FailureCode::Refused, "the sequence numbers are used up");
}

bool BlobController::Repack() {
  try {
    RequireRepackable();
    const std::uint32_t slot = slots.Of(seq + 1);
    if (slots.IsCurrent(slot)) {
      RequireInPlace(*slots.Pack(slot));
      // What has this name was left by a repack that was interrupted, or put there by someone else.
      FileSystem::RemoveLeftover(format::NewPath(slots.Pack(slot)->path));
    }
    // The slot may hold what the load had to pass over, or did not look at: a pack that has lost
    // its header does not say that it is the newest.
    if (damagePolicy == DamagePolicy::Keep) slots.CopyDamaged(slot);
  } catch (const std::exception& e) {
    trace::engine.CaughtErrorV(e, "BlobController::Repack() refused: %s", e.what());
    return false;
  }
  hashCursor.reset();
  BlobFilePtr unfinished;
  const std::int32_t sequence = seq + 1;
  repackSlot = slots.Of(sequence);
  try {
    if (slots.IsCurrent(repackSlot)) {
      RepackInPlace(sequence, unfinished);
    } else {
      RepackIntoNextSlot(sequence, unfinished);
    }
    NoteFigures();
    return true;
  } catch (const Stopped&) {
    slots.Journal(repackSlot)
        ->SetSequence(slots.Journal(repackSlot) == slots.CurJournal() ? seq
                                                                      : format::kSequenceReset);
    DropUnfinished(unfinished, unfinished == slots.Pack(repackSlot));
    trace::engine.CaughtWarnV(Failure(FailureCode::Refused),
                              "BlobController::Repack() stopped: the store is open and as it was");
    return false;
  } catch (const std::exception& e) {
    trace::engine.CaughtErrorV(e, "BlobController::Repack() threw an exception %s", e.what());
  }
  CheckAfterFailure();
  DropUnfinished(unfinished, unfinished == slots.Pack(repackSlot));
  {
    const std::lock_guard alone(readersLock);
    seq = sequence;
  }
  Close();
  return false;
}

void BlobController::RepackIntoNextSlot(std::int32_t sequence, BlobFilePtr& unfinished) {
  const BlobFilePtr pack = slots.Pack(repackSlot);
  const BlobFilePtr journal = slots.Journal(repackSlot);
  EndLife(*pack);
  EndLife(*journal);
  pack->Reset();
  journal->Reset();
  pack->SetSequence(sequence);
  journal->SetSequence(sequence);
  unfinished = pack;
  const BlobFile::Entries copied = CopyBlobs(pack);
  unfinished.reset();

  PointTo(copied);
  // On close, cut the previous generation's files to their records as well.
  slots.CurPack()->CutOnClose();
  slots.CurJournal()->CutOnClose();
  {
    const std::lock_guard alone(readersLock);
    slots.SetCurPack(pack);
    slots.SetCurJournal(repackSlot);
    seq = sequence;
    arriving.reset();
  }
  pack->UpdateHeader();  // once more; the pack is in doubt if this flush fails
}

void BlobController::RepackInPlace(std::int32_t sequence, BlobFilePtr& unfinished) {
  const BlobFilePtr old = slots.Pack(repackSlot);
  const BlobFilePtr journal = slots.Journal(repackSlot);
  unfinished = MakePooled<BlobFile>();
  unfinished->Create(format::NewPath(old->path), BlobFile::Pack);
  unfinished->SetSequence(sequence);
  const BlobFile::Entries copied = CopyBlobs(unfinished);
  const bool isEmptiedLast = journal == slots.CurJournal();
  if (!isEmptiedLast) {
    EndLife(*journal);
    journal->Reset();
  }
  RequireInPlace(*old);
  // Both stay open: no other opener gets either, and after a failure the old pack is there to read.
  unfinished->Replace(old->path);
  const BlobFilePtr fresh = unfinished;
  unfinished.reset();

  PointTo(copied);
  {
    const std::lock_guard alone(readersLock);
    slots.ReplacePack(repackSlot, fresh);
    slots.SetCurJournal(repackSlot);
    seq = sequence;
    arriving.reset();
    journal->EndLife();
    // A blob that could not be copied went with the old pack.
    if (copied.size() < blobs.size())
      blobs.EraseIf([&](const BlobIndex::Entry& entry) { return entry.file != fresh; });
  }
  if (isEmptiedLast) journal->Reset();
  journal->SetSequence(sequence);
}

// A directory that was renamed since the store was opened has taken the pack with it. What its path
// leads to now is not this store's to replace.
void BlobController::RequireInPlace(const BlobFile& pack) {
  if (pack.file.isAt(pack.path)) return;
  throw Failure(FailureCode::Refused, pack.path, " no longer leads to the pack that is open");
}

void BlobController::EndLife(BlobFile& file) {
  const std::lock_guard alone(readersLock);
  file.EndLife();
}

// Some at a time, between which readers get their turn: until the switch the blobs are where they
// were as well.
void BlobController::PointTo(const BlobFile::Entries& copied) {
  constexpr std::size_t kAtATime = 1024;
  for (std::size_t i = 0; i < copied.size();) {
    const std::lock_guard alone(readersLock);
    arriving = copied[i].file;
    for (const std::size_t end = std::min(i + kAtATime, copied.size()); i < end; ++i) {
      blobs.PrefetchBehind(copied, i);
      blobs.Find(copied[i].hash)->second = copied[i];
    }
  }
}

// Writes all that the index holds into target as one transaction of id 0 and commits it. Returns
// where the blobs lie in it; the index still says where they lay. A pack without a record gets no
// transaction: an empty one would not load.
BlobFile::Entries BlobController::CopyBlobs(const BlobFilePtr& target) {
  BlobFile::Entries entries;
  entries.reserve(blobs.size());
  for (const auto& [hash, entry] : blobs) entries.push_back(entry);
  std::sort(entries.begin(), entries.end(), sortByTransaction);

  const Sizes sizes = SizesOf();
  BatchReader batch(sizes.largest, sizes.total, entries.size());
  std::size_t copied = 0;
  for (std::size_t first = 0; first < entries.size(); first += batch.Count()) {
    batch.Clear();
    while (first + batch.Count() < entries.size() &&
           batch.Add(entries[first + batch.Count()].hash, entries[first + batch.Count()])) {
    }
    batch.Read();
    batch.Verify();
    for (std::size_t i = 0; i < batch.Count(); ++i) {
      BlobFile::BlobFileEntry& entry = entries[first + i];
      if (!batch.IsSound(i) && !DecodeForCopy(batch, i, entries, first + i)) {
        blobs.Find(entry.hash)->second.valid = false;
        continue;
      }
      BlobPair pair;
      pair.hash = entry.hash;
      pair.buffer = {batch.Data(i), entry.size};
      if (copied == 0) target->BeginTransaction(0);
      target->Gather(entry, pair);
      entry.file = target;
      ++copied;
    }
    if (progress.Stops(ProgressCall::kRepack, first + batch.Count(), entries.size()))
      throw Stopped{};
  }
  if (copied > 0) {
    target->EndTransaction(0);
  } else {
    target->CommitHeader();
  }
  std::erase_if(entries,
                [&](const BlobFile::BlobFileEntry& entry) { return entry.file != target; });
  return entries;
}

// False when the blob is not there. One that is there and damaged ends the run, and the table tells
// where everything lay.
bool BlobController::DecodeForCopy(BatchReader& batch, std::size_t i,
                                   const BlobFile::Entries& entries, std::size_t number) {
  const BlobFile::BlobFileEntry& entry = entries[number];
  BlobPair pair;
  try {
    if (batch.Decode(i, pair)) return true;
  } catch (const std::exception& e) {
    trace::engine.CaughtErrorV(e,
                               "BlobController::Repack() hash %s file %s offset %d cannot be "
                               "copied: delete this blob, or check the store and put it again",
                               entry.hash.toString(), entry.file->path, entry.offset);
    DumpEntries(entries, number);
    throw;
  }
  trace::engine.WriteWarnV("BlobController::Repack() GetBlob failed on hash %s size %d",
                           entry.hash.toString(), entry.size);
  return false;
}
