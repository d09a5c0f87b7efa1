// BlobController: rebuilding the index when a store is opened.
#include <algorithm>

#include "pack/KeptFile.h"
#include "pack/format/Generation.h"
#include "platform/Failure.h"
#include "platform/Trace.h"
#include "store/BlobController.h"

bool sortBySequence(boost::shared_ptr<BlobFile> a, boost::shared_ptr<BlobFile> b) {
  return format::IsNewer(a->header.sequence, b->header.sequence);
}

bool BlobController::Load() {
  try {
    RequireOpener();
    if (state == State::Closed) throw Failure(refusal.code, refusal.reason);
  } catch (const std::exception& e) {
    trace::engine.CaughtErrorV(e, "BlobController::Load refused, every file is left as it is: %s",
                               e.what());
    return false;
  }
  hashCursor.reset();
  state = State::Attached;
  damaged = false;
  if (refusal.code != FailureCode::ReadOnly) refusal = {};
  try {
    LoadFiles();
  } catch (const std::exception& e) {
    trace::NoteCause(e);
    if (damagePolicy == DamagePolicy::Keep || readOnly) {
      if (refusal.code == FailureCode::None)
        RefuseChanges(FailureCode::Refused,
                      "the load has failed, no change is accepted until one succeeds");
      blobs.Clear();
      trace::engine.WriteErrorV("BlobController::Load failed, every file is left as it was: %s",
                                e.what());
      return false;
    }
    trace::engine.WriteErrorV("BlobController::Load() threw an exception %s", e.what());
    CheckAfterFailure();
    DeleteFiles();
    return false;
  }
  return state == State::Loaded;
}

void BlobController::LoadFiles() {
  AbandonPending();
  seq = format::kSequenceReset;
  for (auto& [hash, entry] : blobs) entry.valid = false;
  hasInvalid = !blobs.empty();

  BlobFile::Entries entries;
  if (!LoadNewestPack(entries)) {
    if (readOnly) throw Failure(FailureCode::Damaged, "no valid Pak files");
    if (damagePolicy == DamagePolicy::Erase) {
      DeleteFiles();
      trace::engine.CaughtErrorV(
          Failure(packFiles.empty() ? FailureCode::Refused : FailureCode::Damaged),
          "BlobController::Load no valid Pak files, reseting all files.  All data is lost");
      return;
    }
    MoveFilesAside();
    if (!LoadNewestPack(entries)) throw Failure(FailureCode::Damaged, "no valid Pak files");
  }
  LoadJournal(entries);
  for (const Files* files : {&packFiles, &journalFiles})
    for (const BlobFilePtr& file : *files) Secure(*file);
  if (hasInvalid) blobs.EraseIf([](const BlobIndex::Entry& entry) { return !entry.valid; });
  state = State::Loaded;
}

// Highest sequence first, equal ones in the order of their slots. A pack of sequence -1 was emptied
// by a repack and never completed: what it holds is nothing that this store would count.
bool BlobController::LoadNewestPack(BlobFile::Entries& entries) {
  Files packs;
  packs.reserve(packFiles.size());
  for (const BlobFilePtr& pack : packFiles)
    packs.insert(std::upper_bound(packs.begin(), packs.end(), pack, sortBySequence), pack);

  for (const BlobFilePtr& pack : packs) {
    entries.clear();
    if (!LoadPack(*pack, entries)) {
      damaged = true;
      trace::engine.WriteWarnV("BlobController::Load invalid Pack file %d %s",
                               pack->header.sequence, pack->path);
      continue;
    }
    if (pack->header.sequence == format::kSequenceReset) return false;
    curPack = pack;
    Apply(entries, pack);
    seq = pack->header.sequence;
    FindLostPack();
    return true;
  }
  return false;
}

// False when it is damaged. To a store that erases, a pack that ends too early is not damage but a
// failure of the whole load, and one that counts no record is empty.
bool BlobController::LoadPack(BlobFile& pack, BlobFile::Entries& entries) const {
  const bool keeps = damagePolicy == DamagePolicy::Keep || readOnly;
  pack.SetProgress(&progress);
  const bool sound = keeps ? pack.LoadRecords(entries) : pack.Load(entries);
  if (!pack.CutShort().empty()) {
    trace::engine.WriteWarnV("%s", pack.CutShort());
    return false;
  }
  progress.Stops(ProgressCall::kLoad, pack.header.endOffset, pack.header.endOffset);
  return sound && (!keeps || !pack.IsDamaged() || !entries.empty());
}

void BlobController::FindLostPack() {
  if (damagePolicy == DamagePolicy::Erase && !readOnly) return;
  for (std::size_t slot = 0; slot < journalFiles.size(); ++slot) {
    BlobFile& pack = *packFiles[slot];
    const BlobFile& journal = *journalFiles[slot];
    const bool isLost =
        format::IsPackLost(pack.header, journal.header, journal.IsDamaged(), slot, seq);
    if (!isLost && !pack.IsDamaged()) continue;
    damaged = true;
    if (&pack == curPack.get() && !isLost) continue;  // read whole, and reported
    pack.MarkDamaged();
    trace::engine.WriteErrorV(
        "BlobController::Load %s is damaged or lost: if it was the newest pack, an older "
        "generation is shown",
        pack.path);
  }
}

void BlobController::LoadJournal(BlobFile::Entries& entries) {
  curJournal = journalFiles[format::SlotOf(seq, static_cast<std::uint32_t>(packFiles.size()))];
  BlobFile& journal = *curJournal;
  entries.clear();
  journal.SetProgress(&progress);
  const bool sound = journal.LoadRecords(entries);
  if (!journal.CutShort().empty()) trace::engine.WriteWarnV("%s", journal.CutShort());
  if (!sound)
    trace::engine.WriteWarnV("BlobController::Load journal file corrupt %s", journal.path);
  if (!sound || !journal.LoadedAll()) {
    const bool isTorn = !sound && journal.LastIsTorn();
    damaged = damaged || !isTorn;
    if (isTorn) {
      trace::engine.WriteWarnV("BlobController::Load %s: %s", journal.path, torn::kText);
    } else {
      const std::uint32_t missing = journal.MissingRecords();
      trace::engine.WriteErrorV(
          "BlobController::Load %s is damaged: %d records that its header counts, of at most %d "
          "transactions, are not there whole",
          journal.path, missing, static_cast<std::uint32_t>(torn::MostTransactions(missing)));
    }
    // Whole transactions stay, in the index and on disk, and the next one follows them: over what
    // the damage left.
    if (!readOnly && SetAside(journal)) journal.KeepLoaded(seq);
  }
  Apply(entries, curJournal);
  progress.Stops(ProgressCall::kLoad, journal.header.endOffset, journal.header.endOffset);
}

// Leaves a copy of what a journal is about to lose: its header and what the header covers behind
// the whole transactions. False where that cannot be: the journal is then left as it is and changes
// are refused. A store that erases keeps only damage that has a whole transaction behind it.
bool BlobController::SetAside(BlobFile& journal) {
  constexpr unsigned kMostCopies = 16;
  if (damagePolicy == DamagePolicy::Erase && !journal.WholeBehind()) return true;
  try {
    const std::string copy = kept::CopyAside(journal.file, format::kFileHeaderSize,
                                             journal.LoadedEnd(), journal.CoveredEnd(),
                                             journal.LastIsTorn() ? kMostCopies : kept::kMaxCopies);
    if (copy.empty()) {
      trace::engine.WriteWarnV(
          "BlobController: %s has %d copies beside it, what it loses is not kept", journal.path,
          kMostCopies);
    } else if (journal.LastIsTorn()) {
      trace::engine.WriteWarnV("BlobController: the rest of %s is kept as %s", journal.path, copy);
    } else {
      trace::engine.WriteErrorV("BlobController: %s is damaged, a copy is kept as %s", journal.path,
                                copy);
    }
    return true;
  } catch (const std::exception& e) {
    trace::NoteCause(e);
    lossReason = "what " + journal.path + " loses cannot be kept: " + e.what();
    trace::engine.WriteErrorV("BlobController::Load %s, no change is accepted", lossReason);
    RefuseChanges(CodeOf(e), lossReason.c_str());
    return false;
  }
}

// A process may have died between writing this file and flushing it. What is read from memory here
// must be on disk before anything is built on it: a pack before commits to its journal, a journal's
// header before records are written over what an older header counts.
void BlobController::Secure(BlobFile& file) const {
  if (file.Secure()) return;
  trace::engine.WriteErrorV("BlobController::Load %s cannot be flushed, no change is accepted",
                            file.path);
}

void BlobController::Apply(BlobFile::Entries& entries, const BlobFilePtr& file) {
  bool isNew = false;
  blobs.Reserve(blobs.size() + entries.size());
  for (std::size_t i = 0; i < entries.size(); ++i) {
    BlobFile::BlobFileEntry& entry = entries[i];
    blobs.PrefetchBehind(entries, i);
    switch (entry.op) {
      case format::kOpStore:
        entry.file = file;
        entry.valid = true;
        blobs.FindOrMake(entry.hash, isNew)->second = entry;
        break;
      case format::kOpDelete:
        blobs.FindOrMake(entry.hash, isNew)->second.valid = false;
        hasInvalid = true;
        break;
      default:
        trace::engine.WriteWarnV("BlobController::Load invalid BlobFile operation");
    }
  }
}

// Moves every file aside and goes on with fresh ones. Journals first: a journal is never left
// beside a fresh pack, which a load would take for its own. If the process dies half way, the next
// one finds the files that have no number yet, and then either moves the packs that are left or
// finds the store empty.
void BlobController::MoveFilesAside() {
  if (packFiles.empty()) throw Failure(FailureCode::Refused, "the store has no slot");
  trace::engine.WriteErrorV(
      "BlobController::Load no valid Pak files, every file is kept under a new name, the store "
      "goes on empty");
  for (const Files* files : {&journalFiles, &packFiles}) {
    for (const BlobFilePtr& file : *files) {
      file->file.close();
      kept::MoveAside(file->path);
    }
  }
  for (const BlobFilePtr& pack : packFiles) pack->Init(pack->path, BlobFile::Pack, 0);
  for (const BlobFilePtr& journal : journalFiles)
    journal->Init(journal->path, BlobFile::Journal, 0);
  for (const Files* files : {&journalFiles, &packFiles})
    for (const BlobFilePtr& file : *files) NumberMoved(*file);
}

void BlobController::NumberMoved(const BlobFile& file) {
  const std::string name = kept::NumberMoved(file.path);
  if (!name.empty())
    trace::engine.WriteErrorV("BlobController::Load %s is kept as %s", file.path, name);
}
