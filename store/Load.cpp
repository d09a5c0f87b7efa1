// BlobController: rebuilding the index when a store is opened.
#include <algorithm>
#include <stdexcept>

#include "fs/KeptFile.h"
#include "pack/CutShort.h"
#include "platform/Trace.h"
#include "store/BlobController.h"

namespace {

constexpr std::size_t kPrefetched = 8;  // entries ahead of the one that goes into the index

}  // namespace

bool sortBySequence(boost::shared_ptr<BlobFile> a, boost::shared_ptr<BlobFile> b) {
  return a->header.sequence > b->header.sequence;
}

bool BlobController::Load() {
  enumerating = false;
  loaded = false;
  loadFailed = false;
  try {
    LoadFiles();
  } catch (const std::exception& e) {
    if (damagePolicy == DamagePolicy::Keep) {
      loadFailed = true;
      blobs.Clear();
      trace::engine.WriteErrorV("BlobController::Load failed, every file is left as it was: %s", e.what());
      return false;
    }
    trace::engine.WriteErrorV("BlobController::Load() threw an exception %s", e.what());
    CheckAfterFailure();
    DeleteFiles();
    return false;
  }
  return loaded;
}

void BlobController::LoadFiles() {
  AbandonPending();
  seq = format::kSequenceReset;
  for (auto& [hash, entry] : blobs) entry.valid = false;
  hasInvalid = !blobs.empty();

  BlobFile::Entries entries;
  if (!LoadNewestPack(entries)) {
    if (damagePolicy == DamagePolicy::Erase) {
      DeleteFiles();
      trace::engine.WriteErrorV("BlobController::Load no valid Pak files, reseting all files.  All data is lost");
      return;
    }
    KeepFilesAside();
    if (!LoadNewestPack(entries)) throw std::runtime_error("no valid Pak files");
  }
  LoadJournal(entries);
  for (const BlobFilePtr& pack : packFiles) Secure(*pack);
  Secure(*curJournal);
  if (hasInvalid) blobs.EraseIf([](const BlobIndex::Entry& entry) { return !entry.valid; });
  loaded = true;
}

// Highest sequence first, equal ones in the order of their slots. A pack of
// sequence -1 was emptied by a repack and never completed: what it holds is
// nothing that this store would count.
bool BlobController::LoadNewestPack(BlobFile::Entries& entries) {
  Files packs;
  packs.reserve(packFiles.size());
  for (const BlobFilePtr& pack : packFiles)
    packs.insert(std::upper_bound(packs.begin(), packs.end(), pack, sortBySequence), pack);

  for (const BlobFilePtr& pack : packs) {
    entries.clear();
    if (!LoadPack(*pack, entries)) {
      trace::engine.WriteWarnV("BlobController::Load invalid Pack file %d %s", pack->header.sequence,
                               pack->path.c_str());
      continue;
    }
    if (pack->header.sequence == format::kSequenceReset) return false;
    curPack = pack;
    Apply(entries, pack);
    seq = pack->header.sequence;
    return true;
  }
  return false;
}

// False when it is damaged. To a store that erases, a pack that ends too
// early is not damage but a failure of the whole load, and one that counts no
// record is empty.
bool BlobController::LoadPack(BlobFile& pack, BlobFile::Entries& entries) const {
  pack.loadProgress = &progress;
  try {
    const bool sound = pack.Load(entries);
    progress.Stops(ProgressCall::kLoad, pack.header.endOffset, pack.header.endOffset);
    return sound && (damagePolicy == DamagePolicy::Erase || !pack.IsDamaged());
  } catch (const CutShort& e) {
    if (damagePolicy == DamagePolicy::Erase) throw;
    trace::engine.WriteWarnV("%s", e.what());
    return false;
  }
}

void BlobController::LoadJournal(BlobFile::Entries& entries) {
  curJournal = journalFiles[static_cast<std::uint32_t>(seq) % packFiles.size()];
  entries.clear();
  curJournal->loadProgress = &progress;
  bool sound = false;
  try {
    sound = curJournal->Load(entries);
  } catch (const CutShort& e) {
    trace::engine.WriteWarnV("%s", e.what());
  }
  if (!sound) trace::engine.WriteWarnV("BlobController::Load journal file corrupt %s", curJournal->path.c_str());
  if (!sound || !curJournal->LoadedAll()) {
    // Whole transactions stay, in the index and on disk, and the next one
    // follows them: over what the damage left.
    if (damagePolicy == DamagePolicy::Keep) Keep(*curJournal, curJournal->LoadedEnd());
    curJournal->KeepLoaded();
  }
  Apply(entries, curJournal);
  progress.Stops(ProgressCall::kLoad, curJournal->header.endOffset, curJournal->header.endOffset);
}

// A process may have died between writing this file and flushing it. What is
// read from memory here must be on disk before anything is built on it: a
// pack before commits to its journal, a journal's header before records are
// written over what an older header counts.
void BlobController::Secure(BlobFile& file) const {
  if (file.Secure()) return;
  trace::engine.WriteErrorV("BlobController::Load %s cannot be flushed, no change is accepted", file.path.c_str());
}

void BlobController::Apply(BlobFile::Entries& entries, const BlobFilePtr& file) {
  bool isNew = false;
  blobs.Reserve(blobs.size() + entries.size());
  for (std::size_t i = 0; i < entries.size(); ++i) {
    BlobFile::BlobFileEntry& entry = entries[i];
    if (i + 2 * kPrefetched < entries.size()) blobs.Prefetch(entries[i + 2 * kPrefetched].hash);
    if (i + kPrefetched < entries.size()) blobs.PrefetchNode(entries[i + kPrefetched].hash);
    switch (entry.op) {
      case format::kOpStore:
        entry.file = file;
        entry.valid = true;
        blobs.FindOrMake(entry.hash, isNew)->second = std::move(entry);
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

// Leaves a copy of what a file is about to lose: its header and all from an
// offset on.
void BlobController::Keep(BlobFile& file, std::uint32_t from) const {
  const std::string copy = kept::CopyAside(file.file, format::kFileHeaderSize, from);
  trace::engine.WriteErrorV("BlobController: %s is damaged, a copy is kept as %s", file.path.c_str(), copy.c_str());
}

// Moves every file aside and goes on with fresh ones.
void BlobController::KeepFilesAside() {
  if (packFiles.empty()) throw std::runtime_error("the store has no slot");
  trace::engine.WriteErrorV(
      "BlobController::Load no valid Pak files, every file is kept under a new name, the store goes on empty");
  const auto replace = [](BlobFile& file, BlobFile::BlobFileMode mode) {
    file.file.close();
    const std::string name = kept::MoveAside(file.path);
    trace::engine.WriteErrorV("BlobController::Load %s is kept as %s", file.path.c_str(), name.c_str());
    file.header = format::FileHeader{};
    file.Init(file.path, mode, 0);
  };
  for (const BlobFilePtr& pack : packFiles) replace(*pack, BlobFile::Pack);
  for (const BlobFilePtr& journal : journalFiles) replace(*journal, BlobFile::Journal);
}
