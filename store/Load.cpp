// BlobController: rebuilding the index when a store is opened.
#include <algorithm>
#include <stdexcept>

#include "pack/CutShort.h"
#include "platform/Trace.h"
#include "store/BlobController.h"

bool sortBySequence(boost::shared_ptr<BlobFile> a, boost::shared_ptr<BlobFile> b) {
  return a->header.sequence > b->header.sequence;
}

bool BlobController::Load() {
  try {
    LoadFiles();
  } catch (const std::exception& e) {
    trace::engine.WriteErrorV("BlobController::Load() threw an exception %s", e.what());
    CheckAfterFailure();
    DeleteFiles();
    return false;
  }
  return loaded;
}

void BlobController::LoadFiles() {
  enumerating = false;
  loaded = false;
  AbandonPending();
  seq = format::kSequenceReset;
  for (auto& [hash, entry] : blobs) entry.valid = false;

  BlobFile::Entries entries;
  if (!LoadNewestPack(entries)) {
    DeleteFiles();
    trace::engine.WriteErrorV("BlobController::Load no valid Pak files, reseting all files.  All data is lost");
    return;
  }
  LoadJournal(entries);
  std::erase_if(blobs, [](const auto& blob) { return !blob.second.valid; });
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
    if (!pack->Load(entries)) {
      trace::engine.WriteWarnV("BlobController::Load invalid Pack file %d %s", pack->header.sequence,
                               pack->path.c_str());
      continue;
    }
    if (pack->header.sequence == format::kSequenceReset) return false;
    curPack = pack;
    Apply(entries, pack);
    seq = pack->header.sequence;
    // A process may have died between writing this pack and flushing it.
    // Commits to the journal from now on rest on its being on disk.
    if (!pack->Secure())
      trace::engine.WriteErrorV("BlobController::Load %s cannot be flushed, no change is accepted", pack->path.c_str());
    return true;
  }
  return false;
}

void BlobController::LoadJournal(BlobFile::Entries& entries) {
  curJournal = journalFiles[static_cast<std::uint32_t>(seq) % packFiles.size()];
  entries.clear();
  bool sound = false;
  try {
    sound = curJournal->Load(entries);
  } catch (const CutShort& e) {
    trace::engine.WriteWarnV("%s", e.what());
  }
  if (!sound) trace::engine.WriteWarnV("BlobController::Load journal file corrupt %s", curJournal->path.c_str());
  // Whole transactions stay, in the index and on disk, and the next one
  // follows them.
  if (!sound || !curJournal->LoadedAll()) curJournal->KeepLoaded();
  Apply(entries, curJournal);
}

void BlobController::Apply(BlobFile::Entries& entries, const BlobFilePtr& file) {
  for (BlobFile::BlobFileEntry& entry : entries) {
    switch (entry.op) {
      case format::kOpStore:
        entry.file = file;
        entry.valid = true;
        blobs.insert_or_assign(entry.hash, entry);
        break;
      case format::kOpDelete:
        blobs[entry.hash].valid = false;
        break;
      default:
        trace::engine.WriteWarnV("BlobController::Load invalid BlobFile operation");
    }
  }
}
