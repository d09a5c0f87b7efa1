// A store as its files show it: read without a lock, a layout file or write access, while another
// process may be changing it.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pack/format/Generation.h"
#include "tools/base/Error.h"
#include "tools/base/Files.h"
#include "tools/view/FileWalk.h"
#include "tools/view/Layout.h"

class MD5;

namespace tool {

struct ViewedBlob {
  blobring::Hash hash;
  uint32_t size = 0;        // bytes
  uint32_t offset = 0;      // of its record
  uint32_t file = 0;        // index into StoreView::files()
  bool isDeletion = false;  // never so in StoreView::blobs()
  int64_t transactionId = 0;

  uint64_t dataOffset() const { return uint64_t{offset} + format::kStoreHeaderSize; }
  // Orders them as they lie in the files.
  std::pair<uint32_t, uint32_t> InFiles() const { return {file, offset}; }
};

class StoreView;

// A blob that cannot be read, or does not match its hash.
class DamagedBlob : public Fault {
  using Fault::Fault;
};

// Another process has overwritten what was being read: whether it was sound cannot be told.
class StoreChanged : public CommandErrorOf<kHeld> {
  using CommandErrorOf::CommandErrorOf;
};

// Takes the next bytes of a blob, which remain valid until it returns.
using TakeBytes = std::function<void(std::string_view)>;

struct ReadBlob {
  const StoreView* view;
  const ViewedBlob* blob;
  std::string_view bytes;  // empty if they are left to HandTo
  std::optional<DamagedBlob> fault;

  // Hands out its bytes, or throws its fault. As StoreView::Read if it is large.
  void HandTo(const TakeBytes& take) const;
};

// A process that has one of the files open.
struct Holder {
  int64_t pid = 0;
  std::string command;  // may be empty
};

// How much of a store a view reads.
enum class Depth {
  kAll,      // every transaction, compared with its digest
  kRecords,  // the records without their data, if all adds up: headers, counts, ends, the digest of
             // a last commit that a power cut can have torn. Otherwise kAll
};

class StoreView {
 public:
  // Looks at a directory, or at a single pack or journal. Finds the generation that a load would
  // choose, and lists its blobs. Says what is wrong with it and that another process may be
  // changing it. Throws Fault or UsageError as LayoutOf does, and StoreChanged if the store was
  // repacked each time it was read.
  // Memory: 40 bytes for each blob, at most 2.5 times as much while it reads, and about 3 MiB.
  explicit StoreView(const StoreOptions& options, Depth depth = Depth::kAll);

  // Of a view that has read the records alone, a blob that is read and matches its hash is right.
  // That one is absent, or damaged, only one says that has read all.
  Depth depth() const { return depth_; }
  // Looks again. Pointers to blobs become invalid.
  void Look();
  // The same, and reads all, if it has not.
  void ReadAll();
  // The same if one of these is absent (null) or does not match its hash.
  void Confirm(std::vector<const ViewedBlob*> blobs);
  // Returns what read() does. If that throws StoreChanged, looks again and calls it again, up to 5
  // times.
  template <class Read>
  auto Steadily(const Read& read) {
    for (int left = 5; left > 0; --left) {
      try {
        return read();
      } catch (const StoreChanged&) {
        Look();
      }
    }
    return read();
  }

  const std::string& path() const { return path_; }
  size_t slotCount() const { return files_.size() / 2; }         // 0: a single file
  const std::vector<SlotFile>& files() const { return files_; }  // each pack before its journal
  bool isSingleFile() const { return isSingleFile_; }

  // The current generation. Nothing when no pack can be loaded, or for a single file.
  std::optional<size_t> slot() const { return slot_; }
  int32_t sequence() const { return sequence_; }
  // What is current of files(): the pack and its journal, or the single file.
  const std::vector<size_t>& current() const { return current_; }
  // The slots of generations that are newer than the current one, or may be, and cannot be shown:
  // their packs are damaged or lost.
  const std::vector<size_t>& notShown() const { return notShown_; }
  bool IsNotShown(size_t file) const;
  // What was found in a file that was walked: those of current(), and damaged packs before them.
  const Walked& walked(size_t file) const { return walked_.at(file); }
  bool isWalked(size_t file) const { return walked_.count(file) != 0; }

  // The live blobs in ascending order of their hashes.
  const std::vector<ViewedBlob>& blobs() const { return blobs_; }
  std::vector<const ViewedBlob*> InFileOrder() const;
  uint64_t liveBytes() const { return liveBytes_; }  // of their data
  const ViewedBlob* Find(const blobring::Hash& hash) const;

  // What a repack would write, and what it would leave behind. Bytes.
  uint64_t repackedBytes() const;
  uint64_t deadBytes() const;

  // Whether another process may have overwritten what this view shows, or with othersToo, what lies
  // in files that are not current. Commits do not do that.
  bool IsStale(bool othersToo = false) const;

  // Throws StoreChanged if IsStale().
  void RequireSteady(bool othersToo = false) const;

  // Hands out a blob in pieces. Throws DamagedBlob if it does not match its hash, or StoreChanged,
  // before the last piece has been handed out.
  void Read(const ViewedBlob& blob, const TakeBytes& take) const;

  // Reads blobs from the first of `rest` on, which then begins behind them: `most` bytes, or one
  // blob. They lie in the buffer, in the order that they have in `rest`. Digests many at a time. A
  // blob larger than kLargeSize is left to HandTo, unless `most` is more than that. Throws
  // StoreChanged.
  std::vector<ReadBlob> ReadSome(std::span<const ViewedBlob* const>& rest, Buffer& buffer,
                                 uint64_t most = kLargeSize) const;

  SalvageFile& file(size_t index) const { return *opened_.at(index); }

  bool damaged() const { return !findings_.empty(); }
  const std::vector<std::string>& findings() const { return findings_; }
  const std::vector<Holder>& holders() const { return holders_; }

 private:
  void Build();
  void ChooseGeneration();
  bool ReadPack(size_t slot);
  void ReadJournal(size_t file);
  Walked ReadRecords(size_t file);
  void SortBlobs();
  bool HeadersChanged() const;
  void FindLostPacks(const format::Generation& shown);
  bool WasNewest(size_t slot) const;
  void RequireHash(const ViewedBlob& blob, MD5& md5) const;
  bool CountsAll(size_t file) const;
  void Compact();

  StoreOptions options_;
  Depth depth_;
  bool addsUp_ = true;  // as far as the records tell
  std::string path_;
  bool isSingleFile_ = false;
  std::vector<SlotFile> files_;
  std::optional<size_t> slot_;
  int32_t sequence_ = 0;
  std::vector<size_t> current_;
  std::vector<size_t> notShown_;
  std::map<size_t, Walked> walked_;
  mutable std::map<size_t, std::unique_ptr<SalvageFile>> opened_;
  std::vector<ViewedBlob> blobs_;
  size_t compactedSize_ = 0;  // of blobs_ when it was last compacted
  uint64_t liveBytes_ = 0;
  std::vector<std::string> findings_;
  std::vector<std::string> notes_;  // no damage
  std::vector<Holder> holders_;
};

// Copies that the library made of damaged files, beside the store's: k.jrn.kept-N.
std::vector<std::string> FilesSetAside(const StoreView& view);

// What repacks that did not end have left: k.pak.new, or a pack that was emptied and still has
// bytes.
std::vector<std::string> UnfinishedRepacks(const StoreView& view);

// The processes that hold a lock on one of the files, from /proc/locks.
std::vector<Holder> HoldersOf(const std::vector<std::string>& paths);

}  // namespace tool
