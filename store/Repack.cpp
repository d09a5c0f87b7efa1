// BlobController: writing the next generation.
//
// At every moment the disk holds one whole generation that a load will find.
// With two slots or more the new one goes into the next slot, whose files are
// emptied first; the header of its pack, written and flushed after all that
// it counts, makes it the newest. Where the next slot is the current one, as
// with a single slot, it goes into a file beside the pack, which then takes
// the pack's place in one step; only then is the current journal emptied:
// replayed over the new pack, it gives the same blobs.
#include <algorithm>
#include <limits>
#include <stdexcept>
#include <string>

#include "fs/FileSystem.h"
#include "platform/Trace.h"
#include "store/BatchReader.h"
#include "store/BlobController.h"

namespace {

constexpr std::size_t kPrefetched = 8;  // blobs ahead of the one that is copied

// Leaves a repack that the embedder stopped. No std::exception: it is no
// failure.
struct Stopped {};

// Gives the disk back what a repack that failed has written.
void DropUnfinished(BlobFile& file) {
  try {
    if (file.file.IsOpen()) file.file.erase();
  } catch (const std::exception& e) {
    trace::engine.WriteErrorV("%s", e.what());
  }
}

void DumpEntries(const BlobFile::Entries& entries, std::size_t failed) {
  const std::string title = "BlobController::Repack() Invalid Blob Detected. Failed on index[" +
                            std::to_string(failed) + "]. BlobEntries table dump. Dumping [" +
                            std::to_string(entries.size()) + "] entries.";
  trace::engine.WriteErrorV("%s", title.c_str());
  trace::engine.WriteErrorV("file.path, file offset, blob size");
  for (const BlobFile::BlobFileEntry& entry : entries) {
    const std::string line = entry.file->path + ", " + std::to_string(entry.offset) + ", " + std::to_string(entry.size);
    trace::engine.WriteErrorV("%s", line.c_str());
  }
}

}  // namespace

bool BlobController::sortByTransaction(BlobFile::BlobFileEntry const& a, BlobFile::BlobFileEntry const& b) {
  if (a.transactionId != b.transactionId) return a.transactionId < b.transactionId;
  return a.hash < b.hash;
}

// Bytes of a pack that holds the blobs of the index.
std::uint64_t BlobController::RepackedSize(const Sizes& sizes) const {
  return format::kFileHeaderSize + format::kStartSize + format::kEndSize + sizes.total +
         std::uint64_t{format::kStoreHeadSize} * blobs.size();
}

// Says why not.
bool BlobController::MayRepack() const {
  const char* reason = nullptr;
  const std::uint64_t size = RepackedSize(SizesOf());
  if (packFiles.empty()) {
    reason = "the store has no slot";
  } else if (!loaded) {
    reason = "the store is not loaded";
  } else if (!pendingEntries.empty()) {
    reason = "changes are pending, end the transaction first";
  } else if (InDoubt()) {
    reason = "a flush has failed, dispose of the store and open it anew";
  } else if (size > format::kMaxFileSize) {
    reason = "the blobs do not fit into one pack of 2147483647 bytes";
  } else if (seq < 0) {
    // No store writes one. A pack that was only emptied, of sequence -1, would
    // be taken for newer, and one step on is that number itself.
    reason = "the sequence number of the pack is negative";
  } else if (seq == std::numeric_limits<std::int32_t>::max()) {
    reason = "the sequence numbers are used up";
  }
  if (reason == nullptr) return true;
  trace::engine.WriteErrorV("BlobController::Repack() refused: %s", reason);
  return false;
}

bool BlobController::Repack() {
  if (!MayRepack()) return false;
  enumerating = false;
  try {
    seq += 1;
    repackSlot = static_cast<std::uint32_t>(seq) % static_cast<std::uint32_t>(packFiles.size());
    if (packFiles[repackSlot] == curPack || journalFiles[repackSlot] == curJournal) {
      RepackInPlace();
    } else {
      RepackIntoNextSlot();
    }
    return true;
  } catch (const Stopped&) {
    seq -= 1;
    trace::engine.WriteWarnV("BlobController::Repack() stopped: the store is open and as it was");
    return false;
  } catch (const std::exception& e) {
    trace::engine.WriteErrorV("BlobController::Repack() threw an exception %s", e.what());
  }
  CheckAfterFailure();
  Close();
  return false;
}

void BlobController::RepackIntoNextSlot() {
  const BlobFilePtr pack = packFiles[repackSlot];
  const BlobFilePtr journal = journalFiles[repackSlot];
  KeepDamaged(*pack, *journal);
  pack->Reset();
  journal->Reset();
  pack->SetSequence(seq);
  journal->SetSequence(seq);

  try {
    CopyBlobs(pack);
  } catch (const Stopped&) {
    // As on disk: emptied, and older than any generation.
    pack->CancelTransaction();
    pack->SetSequence(format::kSequenceReset);
    journal->SetSequence(format::kSequenceReset);
    throw;
  }
  curPack = pack;
  curPack->UpdateHeader();
  curJournal = journal;
}

// The slot that is next may hold what the load had to pass over, or did not
// come to: a pack that has lost its header does not say that it is the newest.
void BlobController::KeepDamaged(BlobFile& pack, BlobFile& journal) const {
  if (!pack.IsDamaged() || damagePolicy != DamagePolicy::Keep) return;
  Keep(pack, format::kFileHeaderSize);
  Keep(journal, format::kFileHeaderSize);
}

void BlobController::RepackInPlace() {
  const BlobFilePtr old = packFiles[repackSlot];
  const BlobFilePtr journal = journalFiles[repackSlot];
  KeepDamaged(*old, *journal);
  const BlobFilePtr fresh = MakePooled<BlobFile>();
  const std::string besides = old->path + ".new";
  try {
    fresh->Init(besides, BlobFile::Pack, 0);
    fresh->Reset();
    fresh->SetSequence(seq);
    CopyBlobs(fresh);
    fresh->file.close();
  } catch (...) {
    DropUnfinished(*fresh);
    throw;
  }
  if (journal != curJournal) journal->Reset();
  // Nobody replaces a file that somebody holds.
  old->file.close();
  FileSystem::ReplaceFileW(besides, old->path);
  fresh->Init(old->path, BlobFile::Pack, 0);
  packFiles[repackSlot] = fresh;
  curPack = fresh;

  // A blob that could not be copied went with the old pack.
  blobs.EraseIf([&](const BlobIndex::Entry& entry) { return entry.file != fresh; });
  if (journal == curJournal) journal->Reset();
  journal->SetSequence(seq);
  curJournal = journal;
}

// Writes all that the index holds into target as one transaction of id 0 and
// commits it. A pack without a record gets no transaction: an empty one would
// not load.
void BlobController::CopyBlobs(const BlobFilePtr& target) {
  BlobFile::Entries entries;
  entries.reserve(blobs.size());
  for (const auto& [hash, entry] : blobs) entries.push_back(entry);
  std::sort(entries.begin(), entries.end(), sortByTransaction);
  const BlobFile::Entries before = progress ? entries : BlobFile::Entries();

  Sizes sizes;
  for (const BlobFile::BlobFileEntry& entry : entries) sizes.Add(entry.size);
  BatchReader batch(sizes.largest, sizes.total, entries.size());
  bool hasRecords = false;
  bool isNew = false;
  for (std::size_t first = 0; first < entries.size(); first += batch.Count()) {
    batch.Clear();
    while (first + batch.Count() < entries.size() &&
           batch.Add(entries[first + batch.Count()].hash, entries[first + batch.Count()])) {
    }
    batch.Verify();
    for (std::size_t i = 0; i < batch.Count(); ++i) blobs.Prefetch(entries[first + i].hash);
    for (std::size_t i = 0; i < batch.Count(); ++i) {
      if (i + kPrefetched < batch.Count()) blobs.PrefetchNode(entries[first + i + kPrefetched].hash);
      BlobFile::BlobFileEntry& entry = entries[first + i];
      BlobPair pair;
      pair.hash = entry.hash;
      pair.buffer = {batch.Data(i), entry.size};
      if (!batch.IsSound(i) && !ReadForCopy(pair, entries, first + i)) continue;
      if (!hasRecords) target->StartTransaction(0);
      hasRecords = true;
      target->Store(entry, pair);
      entry.file = target;
      blobs.FindOrMake(entry.hash, isNew)->second = entry;
    }
    if (progress.Stops(ProgressCall::kRepack, first + batch.Count(), entries.size())) {
      for (const BlobFile::BlobFileEntry& entry : before) blobs.FindOrMake(entry.hash, isNew)->second = entry;
      throw Stopped{};
    }
  }
  if (hasRecords) {
    target->EndTransaction(0);
  } else {
    target->CommitHeader();
  }
}

// Reads blob i the careful way; false when it is not there. One that is there
// and damaged ends the run, and the table tells where everything lay.
bool BlobController::ReadForCopy(BlobPair& pair, const BlobFile::Entries& entries, std::size_t i) const {
  const BlobFile::BlobFileEntry& entry = entries[i];
  try {
    if (entry.file->GetBlob(pair, entry.offset)) return true;
  } catch (const std::exception&) {
    DumpEntries(entries, i);
    throw;
  }
  trace::engine.WriteWarnV("BlobController::Repack() GetBlob failed on hash %s size %d", entry.hash.toString().c_str(),
                           static_cast<int>(entry.size));
  return false;
}
