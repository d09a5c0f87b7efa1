// BlobController: rebuilding the index when a store is opened.
#include <algorithm>

#include "pack/KeptFile.h"
#include "platform/Failure.h"
#include "platform/Trace.h"
#include "store/BlobController.h"

bool BlobController::Load() {
  try {
    RequireOpener();
    if (state == State::Closed) throw Failure(refusal.code, refusal.reason);
  } catch (const std::exception& e) {
    trace::engine.CaughtErrorV(e, "BlobController::Load refused, every file is left as it is: %s",
                               e.what());
    return false;
  }
  std::unique_lock alone(readersLock);
  hashCursor.reset();
  state = State::Attached;
  slots.EndLives();
  damaged = false;
  if (refusal.code != FailureCode::ReadOnly) refusal = {};
  try {
    LoadFiles();
  } catch (const std::exception& e) {
    trace::NoteCause(e);
    NoteFigures();
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
    alone.unlock();
    CheckAfterFailure();
    DeleteFiles();
    return false;
  }
  NoteFigures();
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
      EraseFiles();
      trace::engine.CaughtErrorV(
          Failure(slots.empty() ? FailureCode::Refused : FailureCode::Damaged),
          "BlobController::Load no valid Pak files, reseting all files.  All data is lost");
      return;
    }
    if (slots.empty()) throw Failure(FailureCode::Refused, "the store has no slot");
    trace::engine.WriteErrorV(
        "BlobController::Load no valid Pak files, every file is kept under a new name, the store "
        "goes on empty");
    slots.MoveAside();
    if (!LoadNewestPack(entries)) throw Failure(FailureCode::Damaged, "no valid Pak files");
  }
  LoadJournal(entries);
  slots.MakeDurable();
  if (hasInvalid) blobs.EraseIf([](const BlobIndex::Entry& entry) { return !entry.valid; });
  state = State::Loaded;
}

bool BlobController::LoadNewestPack(BlobFile::Entries& entries) {
  const auto newest = slots.ChooseNewest([&](BlobFile& pack) {
    entries.clear();
    if (LoadPack(pack, entries)) return true;
    damaged = true;
    trace::engine.WriteWarnV("BlobController::Load invalid Pack file %d %s", pack.header.sequence,
                             pack.path);
    return false;
  });
  if (!newest) return false;
  slots.SetCurPack(slots.Pack(newest->packSlot));
  Apply(entries, slots.CurPack());
  seq = newest->sequence;
  if (damagePolicy == DamagePolicy::Keep || readOnly) damaged = slots.MarkLost(*newest) || damaged;
  slots.SetCurJournal(newest->journalSlot);
  return true;
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

void BlobController::LoadJournal(BlobFile::Entries& entries) {
  BlobFile& journal = *slots.CurJournal();
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
  Apply(entries, slots.CurJournal());
  progress.Stops(ProgressCall::kLoad, journal.header.endOffset, journal.header.endOffset);
}

// Leaves a copy of what a journal is about to lose: its header and what the header covers behind
// the whole transactions. Returns false, with changes refused and the journal left as it is, if no
// copy can be made. Under DamagePolicy::Erase copies only damage that a whole transaction follows.
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
