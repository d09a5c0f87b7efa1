#include "store/Slots.h"

#include <algorithm>

#include "pack/KeptFile.h"
#include "pack/format/FileNames.h"
#include "platform/Failure.h"
#include "platform/Trace.h"

namespace {

void NumberMoved(const BlobFile& file) {
  const std::string name = kept::NumberMoved(file.path);
  if (!name.empty())
    trace::engine.WriteErrorV("BlobController::Load %s is kept as %s", file.path, name);
}

}  // namespace

bool sortBySequence(boost::shared_ptr<BlobFile> a, boost::shared_ptr<BlobFile> b) {
  return format::IsNewer(a->header.sequence, b->header.sequence);
}

void Slots::Add(const std::string& packDir, bool readOnly) {
  const std::uint32_t slot = size();
  packFiles.reserve(packFiles.size() + 1);
  journalFiles.reserve(journalFiles.size() + 1);

  const auto open = [readOnly](const std::string& file, BlobFile::BlobFileMode mode) {
    BlobFilePtr opened = MakePooled<BlobFile>();
    if (readOnly) {
      opened->InitReadOnly(file, mode);
    } else {
      opened->Init(file, mode, 0);
      NumberMoved(*opened);
    }
    return opened;
  };
  const BlobFilePtr pack = open(format::PackPath(packDir, slot), BlobFile::Pack);
  const BlobFilePtr journal = open(format::JournalPath(path, slot), BlobFile::Journal);

  packFiles.push_back(pack);
  journalFiles.push_back(journal);
  if (!curPack) curPack = pack;
  if (!curJournal) curJournal = journal;
}

bool Slots::IsCurrent(std::uint32_t slot) const {
  return packFiles[slot] == curPack || journalFiles[slot] == curJournal;
}

void Slots::ReplacePack(std::uint32_t slot, const BlobFilePtr& pack) {
  packFiles[slot] = pack;
  curPack = pack;
}

bool Slots::MarkLost(const format::Generation& shown) {
  bool foundAny = false;
  const auto headersOf = [this](std::uint32_t slot) {
    const BlobFile& pack = *packFiles[slot];
    const BlobFile& journal = *journalFiles[slot];
    return format::SlotHeaders{pack.header, journal.header, pack.IsDamaged(), journal.IsDamaged()};
  };
  format::FindLost(shown, size(), headersOf, [&](std::uint32_t slot) {
    foundAny = true;
    if (slot == shown.packSlot && packFiles[slot]->IsDamaged()) return;  // read whole
    const bool isImpossible =
        format::IsImpossible(packFiles[slot]->header, slot, shown.sequence, size());
    packFiles[slot]->MarkDamaged();
    trace::engine.WriteErrorV(
        "BlobController::Load %s is damaged or lost%s: if it was the newest pack, an older "
        "generation is shown",
        packFiles[slot]->path, isImpossible ? ", or the header of the pack that is shown is" : "");
  });
  return foundAny;
}

bool Slots::InDoubt() const {
  bool inDoubt = false;
  ForEachFile([&](const BlobFile& file) { inDoubt = inDoubt || file.InDoubt(); });
  return inDoubt;
}

void Slots::CopyDamaged(std::uint32_t slot) const {
  if (!packFiles[slot]->IsDamaged()) return;
  for (BlobFile* file : {packFiles[slot].get(), journalFiles[slot].get()}) {
    const std::string copy = kept::CopyAside(file->file, 0, 0, file->file.size(), kept::kMaxCopies);
    trace::engine.WriteErrorV("BlobController: %s is damaged, a copy is kept as %s", file->path,
                              copy);
  }
}

// Journals first: a journal is never left beside a fresh pack, which a load would take for its own.
// If the process dies half way, the next one finds the files that have no number yet, and then
// either moves the packs that are left or finds the store empty.
void Slots::MoveAside() {
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

void Slots::MakeDurable() {
  ForEachFile([](BlobFile& file) {
    if (!file.MakeDurable())
      trace::engine.WriteErrorV("BlobController::Load %s cannot be flushed, no change is accepted",
                                file.path);
  });
}

void Slots::EndLives() {
  ForEachFile([](BlobFile& file) { file.EndLife(); });
}

void Slots::CutToRecords() noexcept {
  ForEachFile([](BlobFile& file) { file.CutToRecords(); });
}

void Slots::Close() {
  ForEachFile([](BlobFile& file) { file.file.close(); });
}

void Slots::Erase() {
  ForEachFile([](BlobFile& file) { file.file.erase(); });
}
