// The slots of one open store, each a pack and a journal, and which files are current.
//
// Errors: std::runtime_error, unless a comment says otherwise.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "pack/BlobFile.h"
#include "pack/format/Generation.h"
#include "platform/BlobAllocator.h"

// Highest header sequence first.
bool sortBySequence(boost::shared_ptr<BlobFile> a, boost::shared_ptr<BlobFile> b);

class Slots {
 public:
  using BlobFilePtr = boost::shared_ptr<BlobFile>;
  using Files =
      std::vector<BlobFilePtr,
                  BlobAllocator<BlobFilePtr, TesselMemoryManager::kContainerPool, kTagFiles>>;

  // Of journals in `storeDirectory`.
  explicit Slots(std::string storeDirectory) : path(std::move(storeDirectory)) {}

  // Adds slot k: the pack packDir/k.pak and the journal k.jrn in the store's directory, which are
  // created if they are missing, unless readOnly. The first becomes current. Throws what
  // BlobFile::Init throws; nothing has been added then.
  void Add(const std::string& packDir, bool readOnly);

  bool empty() const { return packFiles.empty(); }
  std::uint32_t size() const { return static_cast<std::uint32_t>(packFiles.size()); }
  std::uint32_t Of(std::int32_t sequence) const { return format::SlotOf(sequence, size()); }
  const BlobFilePtr& Pack(std::uint32_t slot) const { return packFiles[slot]; }
  const BlobFilePtr& Journal(std::uint32_t slot) const { return journalFiles[slot]; }

  // Null while there is no slot.
  const BlobFilePtr& CurPack() const { return curPack; }
  const BlobFilePtr& CurJournal() const { return curJournal; }
  void SetCurPack(const BlobFilePtr& pack) { curPack = pack; }
  void SetCurJournal(std::uint32_t slot) { curJournal = journalFiles[slot]; }
  // Whether either file of the slot is.
  bool IsCurrent(std::uint32_t slot) const;

  // Puts another file in place of a slot's pack and makes it current.
  void ReplacePack(std::uint32_t slot, const BlobFilePtr& pack);

  // The generation that the store shows; load(pack) tells whether a pack can be loaded.
  template <class Load>
  std::optional<format::Generation> ChooseNewest(const Load& load) const {
    using Order =
        std::vector<std::uint32_t,
                    BlobAllocator<std::uint32_t, TesselMemoryManager::kContainerPool, kTagFiles>>;
    return format::ChooseNewest<Order>(
        size(),
        [this](std::uint32_t a, std::uint32_t b) {
          return sortBySequence(packFiles[a], packFiles[b]);
        },
        [&](std::uint32_t slot) {
          BlobFile& pack = *packFiles[slot];
          return load(pack) ? std::optional(pack.header.sequence) : std::nullopt;
        });
  }

  // Marks packs as damaged that may have been newer than this generation. Returns whether there are
  // any.
  bool MarkLost(const format::Generation& shown);

  // Whether a flush of any file has failed.
  bool InDoubt() const;

  // Copies both files of a slot aside if its pack is damaged.
  void CopyDamaged(std::uint32_t slot) const;

  // Moves every file aside and goes on with fresh ones.
  void MoveAside();

  // A process may have died between writing a file and flushing it. What a load read from memory
  // must be on disk before anything is built on it: a pack before commits to its journal, a
  // journal's header before records are written over what an older header counts. A file that
  // cannot be flushed is in doubt from then on.
  void MakeDurable();

  // Of every file.
  void EndLives();
  void CutToRecords() noexcept;
  void Close();
  void Erase();

 private:
  // Packs first.
  template <class Visit>
  void ForEachFile(const Visit& visit) const {
    for (const Files* files : {&packFiles, &journalFiles})
      for (const BlobFilePtr& file : *files) visit(*file);
  }

  std::string path;
  Files packFiles;
  Files journalFiles;
  BlobFilePtr curPack;
  BlobFilePtr curJournal;
};
