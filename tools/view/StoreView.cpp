#include "tools/view/StoreView.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "md5/MD5.h"
#include "pack/format/Generation.h"
#include "tools/base/Console.h"
#include "tools/base/Error.h"
#include "tools/base/Interrupt.h"

namespace tool {
namespace {

namespace stdfs = std::filesystem;
using State = FileStatus::State;

// Repacks of another process overwrite what is being read.
constexpr int kMostReadings = 10;
constexpr auto kRetryAfter = std::chrono::milliseconds(20);
constexpr size_t kLeastCompacted = size_t{1} << 16;  // blobs
constexpr size_t kLeastReserved = 1024;              // blobs

constexpr uint32_t kPieceSize = 1024 * 1024;
constexpr size_t kMostReadAtOnce = 4096;  // blobs
constexpr uint64_t kMostBetween = 512;    // bytes that are read rather than skipped

bool SameStatus(const FileStatus& a, const FileStatus& b) {
  return a.state == b.state && a.header.recordCount == b.header.recordCount &&
         a.header.sequence == b.header.sequence && a.header.endOffset == b.header.endOffset;
}

// What was read of a file stays as it was while its journal grows.
bool IsOrHasGrown(const FileStatus& before, const FileStatus& now) {
  const format::FileHeader& a = before.header;
  const format::FileHeader& b = now.header;
  return SameStatus(before, now) || ((a.sequence == b.sequence || a.recordCount == 0) &&
                                     b.mode == 0 && now.state == State::kSound &&
                                     b.recordCount >= a.recordCount && b.endOffset >= a.endOffset);
}

// The numbers of /proc/locks are those of the file system, which some report otherwise in stat(2):
// a descriptor of the process decides then.
bool HasOpen(const std::string& pid, const FileId& id) {
  std::error_code code;
  for (const auto& entry : stdfs::directory_iterator("/proc/" + pid + "/fd", code))
    if (IdOf(entry.path().string()) == id) return true;
  return false;
}

std::string DamagedAt(const SlotFile& file, const Damage& damage) {
  return fmt::format("{} is damaged at {}: {}", file.path, damage.offset, damage.what);
}

}  // namespace

std::vector<Holder> HoldersOf(const std::vector<std::string>& paths) {
  std::vector<FileId> ids;
  for (const std::string& path : paths)
    if (const std::optional<FileId> id = IdOf(path)) ids.push_back(*id);
  std::map<int64_t, Holder> holders;
  std::ifstream locks("/proc/locks");
  // "1: FLOCK  ADVISORY  WRITE 4711 08:01:1234 0 EOF"
  for (std::string line; std::getline(locks, line);) {
    std::istringstream words(line);
    std::string number, kind, mode, type, pid, file;
    if (!(words >> number >> kind >> mode >> type >> pid >> file) || kind != "FLOCK") continue;
    unsigned majorNumber = 0;
    unsigned minorNumber = 0;
    unsigned long long inode = 0;
    if (std::sscanf(file.c_str(), "%x:%x:%llu", &majorNumber, &minorNumber, &inode) != 3) continue;
    for (const FileId& id : ids) {
      if (id.second != inode ||
          (id.first != makedev(majorNumber, minorNumber) && !HasOpen(pid, id)))
        continue;
      Holder& holder = holders[std::atoll(pid.c_str())];
      holder.pid = std::atoll(pid.c_str());
      std::ifstream name("/proc/" + pid + "/comm");
      std::getline(name, holder.command);
    }
  }
  std::vector<Holder> found;
  found.reserve(holders.size());
  for (auto& [pid, holder] : holders) found.push_back(std::move(holder));
  return found;
}

std::vector<std::string> FilesSetAside(const StoreView& view) {
  if (view.isSingleFile()) return {};
  std::vector<std::string> paths = LeftoversBeside(view.files());
  std::erase_if(paths, [](const std::string& path) {
    return !format::FileName::Parse(stdfs::path(path).filename().string())->IsSetAside();
  });
  return paths;
}

std::vector<std::string> UnfinishedRepacks(const StoreView& view) {
  std::vector<std::string> paths;
  std::error_code ignored;
  for (size_t i = 0; i < view.files().size() && !view.isSingleFile(); i += 2) {
    const SlotFile& pack = view.files()[i];
    if (pack.status.header.sequence == format::kSequenceReset &&
        pack.status.size > format::kFileHeaderSize)
      paths.push_back(pack.path);
    if (stdfs::exists(format::NewPath(pack.path), ignored))
      paths.push_back(format::NewPath(pack.path));
  }
  return paths;
}

StoreView::StoreView(const StoreOptions& options, Depth depth)
    : options_(options), depth_(depth), path_(options.directory) {
  std::error_code ignored;
  isSingleFile_ = stdfs::exists(path_, ignored) && !stdfs::is_directory(path_, ignored);
  Look();
}

void StoreView::ReadAll() {
  if (std::exchange(depth_, Depth::kAll) != Depth::kAll) Look();
}

void StoreView::Confirm(std::vector<const ViewedBlob*> blobs) {
  if (depth_ == Depth::kAll) return;
  if (std::find(blobs.begin(), blobs.end(), nullptr) != blobs.end()) return ReadAll();
  std::ranges::sort(blobs, {}, &ViewedBlob::InFiles);
  blobs.erase(std::unique(blobs.begin(), blobs.end()), blobs.end());
  Buffer buffer;
  Progress progress("comparing", blobs.size());
  try {
    for (std::span<const ViewedBlob* const> rest = blobs; !rest.empty();)
      for (const ReadBlob& read : ReadSome(rest, buffer)) {
        read.HandTo([](std::string_view) {});
        progress.Advance(read.blob->size);
      }
  } catch (const DamagedBlob&) {
    ReadAll();
  } catch (const StoreChanged&) {
    ReadAll();
  }
}

void StoreView::Look() {
  bool isStale = true;
  for (int attempt = 0; isStale && attempt < kMostReadings; ++attempt) {
    if (attempt != 0) std::this_thread::sleep_for(kRetryAfter);
    Build();
    // What looks like damage may be a write in progress.
    const auto isDoubtful = [this] { return !addsUp_ || !findings_.empty() || !notes_.empty(); };
    if (isDoubtful() && std::exchange(depth_, Depth::kAll) != Depth::kAll) Build();
    isStale = IsStale(true) || (isDoubtful() && HeadersChanged());
  }
  std::vector<std::string> paths;
  for (const SlotFile& file : files_) paths.push_back(file.path);
  const bool isSaid = !holders_.empty();
  holders_ = HoldersOf(paths);
  for (const Holder& holder : holders_)
    if (!isSaid)
      Inform("{} is open in process {} ({}) and may be changing", path_, holder.pid,
             holder.command);
  if (isStale)
    throw StoreChanged("{} changed each time it was read: another process is at work on it", path_);
  for (const std::string& text : findings_) SayDamage("{}", text);
  for (const std::string& text : notes_) Say("{}", text);
  Detail("{}: {} of generation {}, {}", path_, Count(blobs_.size(), "blob"), sequence_,
         depth_ == Depth::kAll ? "all transactions compared with their digests" : "data not read");
}

void StoreView::Build() {
  addsUp_ = true;
  current_.clear();
  notShown_.clear();
  walked_.clear();
  opened_.clear();
  blobs_.clear();
  compactedSize_ = 0;
  findings_.clear();
  notes_.clear();
  slot_.reset();
  if (isSingleFile_) {
    files_ = {SlotFile{path_, ReadStatus(path_)}};
    if (files_[0].status.state == State::kDamaged)
      findings_.push_back(path_ + ": the header is damaged");
    current_ = {0};
    const Walked walked = ReadRecords(0);
    if (walked.damage) findings_.push_back(DamagedAt(files_[0], *walked.damage));
  } else {
    files_ = LayoutOf(options_, Access::kLook).ReadFiles();
    ChooseGeneration();
  }
  SortBlobs();
}

void StoreView::ChooseGeneration() {
  const bool isUsed = std::any_of(files_.begin(), files_.end(),
                                  [](const SlotFile& file) { return file.status.IsUsed(); });
  for (const auto& [file, text] : FindSwapped(files_)) findings_.push_back(text);
  for (const SlotFile& file : files_)
    if (file.status.state == State::kMissing && isUsed)
      findings_.push_back(file.path + " is missing");
  const auto sequenceOf = [this](size_t slot) { return files_[2 * slot].status.header.sequence; };
  const auto newest = format::ChooseNewest<std::vector<uint32_t>>(
      static_cast<uint32_t>(slotCount()),
      [&](size_t a, size_t b) { return format::IsNewer(sequenceOf(a), sequenceOf(b)); },
      [&](size_t slot) { return ReadPack(slot) ? std::optional(sequenceOf(slot)) : std::nullopt; });
  if (!newest) {
    blobs_.clear();
    findings_.push_back("no pack can be loaded");
    return;
  }
  sequence_ = newest->sequence;
  slot_ = newest->journalSlot;
  current_ = {2 * size_t{newest->packSlot}};
  FindLostPacks(*newest);
  ReadJournal(2 * *slot_ + 1);
}

// Whether a load can go by it.
bool StoreView::ReadPack(size_t slot) {
  const SlotFile& pack = files_[2 * slot];
  blobs_.clear();
  if (pack.status.state == State::kMissing) return false;
  const Walked walked = ReadRecords(2 * slot);
  if (!walked.damage && (walked.recordCount != 0 || CountsAll(2 * slot))) return true;
  findings_.push_back(walked.damage ? DamagedAt(pack, *walked.damage)
                                    : pack.path + ": the header is damaged");
  opened_.erase(2 * slot);
  notShown_.push_back(slot);
  if (notShown_.size() == 1 && pack.status.state == State::kSound)
    findings_.push_back("the newest generation, that of " + pack.path + ", is not shown");
  return false;
}

void StoreView::FindLostPacks(const format::Generation& shown) {
  const auto headersOf = [this](uint32_t slot) { return HeadersOf(files_, slot); };
  format::FindLost(shown, static_cast<uint32_t>(slotCount()), headersOf, [this](uint32_t slot) {
    if (IsNotShown(2 * size_t{slot})) return;
    notShown_.push_back(slot);
    const char* const age =
        WasNewest(slot) ? "it was the newest pack, and" : "if it was the newest pack,";
    const SlotFile& pack = files_[2 * size_t{slot}];
    const std::string what = format::IsImpossible(pack.status.header, slot, sequence_,
                                                  static_cast<uint32_t>(slotCount()))
                                 ? fmt::format("the header of {} or of {} is damaged", pack.path,
                                               files_[current_[0]].path)
                                 : pack.path + " is damaged or lost";
    findings_.push_back(fmt::format("{}: {} what is shown is older", what, age));
  });
}

bool StoreView::IsNotShown(size_t file) const {
  return std::find(notShown_.begin(), notShown_.end(), file / 2) != notShown_.end();
}

// Whether the lost pack of a slot must have been newer than the one that is shown: its journal says
// so, or there was no repack that can have written an older one.
bool StoreView::WasNewest(size_t slot) const {
  const SlotFile& journal = files_[2 * slot + 1];
  if (journal.status.state == State::kSound && journal.status.header.sequence > sequence_)
    return true;
  const auto age = (static_cast<uint64_t>(sequence_) + slotCount() - slot) % slotCount();
  return age != 0 && static_cast<int64_t>(age) >= sequence_;
}

// Whether the header counts just what the file has.
bool StoreView::CountsAll(size_t file) const {
  const FileStatus& status = files_[file].status;
  const Walked& walked = walked_.at(file);
  return status.state == State::kNew ||
         (status.state == State::kSound && walked.recordCount == status.header.recordCount &&
          walked.end == status.header.endOffset);
}

void StoreView::ReadJournal(size_t journal) {
  const SlotFile& file = files_[journal];
  if (file.status.state == State::kMissing) return;
  current_.push_back(journal);
  const Walked walked = ReadRecords(journal);
  if (!walked.damage && CountsAll(journal)) return;
  if (walked.lastIsTorn)
    notes_.push_back(
        fmt::format("{} at {}: {}", file.path, walked.damage->offset, walked.damage->what));
  else if (walked.damage)
    findings_.push_back(DamagedAt(file, *walked.damage));
  else
    findings_.push_back(file.path + ": the header does not count what the file has");
}

// Walks a file and adds its records to blobs_.
Walked StoreView::ReadRecords(size_t index) {
  auto& opened = opened_[index];
  opened = std::make_unique<SalvageFile>(files_[index].path);
  WalkOptions options;
  if (depth_ == Depth::kRecords) options.digests = Digests::kLast;
  options.record = [this, index](const format::Record& record) {
    if (blobs_.size() == blobs_.capacity()) {
      ThrowIfInterrupted();
      Compact();
      blobs_.reserve(kLeastReserved + blobs_.size() + blobs_.size() / 2);
    }
    blobs_.push_back({HashOf(record), record.size, static_cast<uint32_t>(record.offset),
                      static_cast<uint32_t>(index), !record.IsStore(), record.op.transactionId});
  };
  const FileStatus& status = files_[index].status;
  Progress progress("reading " + files_[index].path, 0);
  options.progress = [&](uint64_t digested) {
    progress.ShowBytes(digested, std::max<uint64_t>(digested, status.header.endOffset));
  };
  Walked walked;
  if (status.state != State::kNew) walked = Walk(*opened, status, options);
  walked_[index] = walked;
  if (depth_ == Depth::kRecords && !CountsAll(index)) addsUp_ = false;
  return walked;
}

// A journal may have stored and deleted far more than is live.
void StoreView::Compact() {
  if (blobs_.size() < kLeastCompacted || blobs_.size() / 2 < compactedSize_) return;
  SortBlobs();
  compactedSize_ = blobs_.size();
}

// The last record of each hash decides. The journal comes behind the pack, whatever their slots.
void StoreView::SortBlobs() {
  std::sort(blobs_.begin(), blobs_.end(), [](const ViewedBlob& a, const ViewedBlob& b) {
    return std::tuple(a.hash, a.file % 2, a.offset) < std::tuple(b.hash, b.file % 2, b.offset);
  });
  size_t kept = 0;
  liveBytes_ = 0;
  for (size_t i = 0; i < blobs_.size(); ++i) {
    const bool isLast = i + 1 == blobs_.size() || blobs_[i].hash != blobs_[i + 1].hash;
    if (!isLast || blobs_[i].isDeletion) continue;
    blobs_[kept++] = blobs_[i];
    liveBytes_ += blobs_[i].size;
  }
  blobs_.resize(kept);
}

bool StoreView::IsStale(bool othersToo) const {
  for (size_t i = 0; i < files_.size(); ++i)
    if ((othersToo || std::ranges::count(current_, i) != 0) &&
        !IsOrHasGrown(files_[i].status, ReadStatus(files_[i].path)))
      return true;
  return false;
}

void StoreView::RequireSteady(bool othersToo) const {
  if (IsStale(othersToo))
    throw StoreChanged("{} changed while it was read: another process is at work on it", path_);
}

bool StoreView::HeadersChanged() const {
  return std::any_of(files_.begin(), files_.end(), [](const SlotFile& file) {
    return !SameStatus(ReadStatus(file.path), file.status);
  });
}

std::vector<const ViewedBlob*> StoreView::InFileOrder() const {
  std::vector<const ViewedBlob*> blobs;
  blobs.reserve(blobs_.size());
  for (const ViewedBlob& blob : blobs_) blobs.push_back(&blob);
  std::ranges::sort(blobs, {}, &ViewedBlob::InFiles);
  return blobs;
}

const ViewedBlob* StoreView::Find(const blobring::Hash& hash) const {
  const auto found = std::lower_bound(
      blobs_.begin(), blobs_.end(), hash,
      [](const ViewedBlob& blob, const blobring::Hash& wanted) { return blob.hash < wanted; });
  return found != blobs_.end() && found->hash == hash ? &*found : nullptr;
}

uint64_t StoreView::repackedBytes() const {
  if (blobs_.empty()) return format::kFileHeaderSize;
  return format::kFileHeaderSize + format::kStartSize + format::kEndSize +
         blobs_.size() * uint64_t{format::kStoreHeaderSize} + liveBytes_;
}

// The journal of a repacked store is a header alone.
uint64_t StoreView::deadBytes() const {
  uint64_t used = 0;
  for (const size_t file : current_) used += walked_.count(file) != 0 ? walked_.at(file).end : 0;
  return used - std::min(used, repackedBytes() + format::kFileHeaderSize);
}

void StoreView::Read(const ViewedBlob& blob, const TakeBytes& take) const {
  Buffer piece;
  Grow(piece, std::min(blob.size, kPieceSize));
  MD5 md5;
  for (uint32_t at = 0, size = 0; at == 0 || at < blob.size; at += size) {
    ThrowIfInterrupted();
    size = std::min(blob.size - at, kPieceSize);
    auto* const bytes = reinterpret_cast<unsigned char*>(piece.data());
    opened_.at(blob.file)->Read(blob.dataOffset() + at, bytes, size);
    md5.update(bytes, size);
    if (at + size == blob.size) RequireHash(blob, md5);
    take({piece.data(), size});
    if (size == 0) break;
  }
}

void StoreView::RequireHash(const ViewedBlob& blob, MD5& md5) const {
  blobring::Hash hash;
  md5.finalize();
  md5.raw_digest(hash.data());
  if (hash == blob.hash) return;
  RequireSteady();
  throw DamagedBlob("cannot read the blob {}: it does not match its hash in {} at {}",
                    blob.hash.text(), files_[blob.file].path, blob.offset);
}

void ReadBlob::HandTo(const TakeBytes& take) const {
  if (fault) throw DamagedBlob(*fault);
  if (bytes.size() != blob->size) return view->Read(*blob, take);
  take(bytes);
}

std::vector<ReadBlob> StoreView::ReadSome(std::span<const ViewedBlob* const>& rest, Buffer& buffer,
                                          uint64_t most) const {
  std::vector<ReadBlob> read;
  uint64_t bytes = 0;
  for (const ViewedBlob* blob : rest) {
    if (!read.empty() && (bytes + blob->size > most || read.size() == kMostReadAtOnce)) break;
    read.push_back({this, blob, {}, {}});
    bytes += blob->size + kMostBetween;
  }
  rest = rest.subspan(read.size());
  if (read[0].blob->size > kLargeSize && most <= kLargeSize) return read;
  Grow(buffer, bytes);
  // As they lie; neighbours in one call, with what is between them.
  std::vector<ReadBlob*> order;
  order.reserve(read.size());
  for (ReadBlob& each : read) order.push_back(&each);
  std::sort(order.begin(), order.end(), [](const ReadBlob* a, const ReadBlob* b) {
    return std::tie(a->blob->file, a->blob->offset) < std::tie(b->blob->file, b->blob->offset);
  });
  char* at = buffer.data();
  for (auto first = order.begin(); first != order.end();) {
    const uint64_t start = (*first)->blob->dataOffset();
    uint64_t end = start;
    auto next = first;
    for (; next != order.end() && (*next)->blob->file == (*first)->blob->file; ++next) {
      const uint64_t from = (*next)->blob->dataOffset();
      if (from < end || from - end > kMostBetween) break;
      (*next)->bytes = {at + (from - start), (*next)->blob->size};
      end = from + (*next)->blob->size;
    }
    opened_.at((*first)->blob->file)
        ->Read(start, reinterpret_cast<unsigned char*>(at), end - start);
    at += end - start;
    first = next;
  }
  std::vector<std::array<uint8_t, format::kHashSize>> digests(read.size());
  std::vector<MD5Message> messages;
  for (size_t i = 0; i < read.size(); ++i)
    messages.push_back({reinterpret_cast<const uint8_t*>(read[i].bytes.data()),
                        read[i].bytes.size(), digests[i].data()});
  DigestMany(messages.data(), messages.size());
  for (size_t i = 0; i < read.size(); ++i) {
    if (blobring::Hash(digests[i]) == read[i].blob->hash) continue;
    try {
      char* to = buffer.data() + (read[i].bytes.data() - buffer.data());
      Read(*read[i].blob, [&to](std::string_view piece) { to = std::ranges::copy(piece, to).out; });
    } catch (const DamagedBlob& fault) {
      read[i].fault = fault;
    }
  }
  return read;
}

}  // namespace tool
