#include "tools/look/StoreView.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "tools/Error.h"

namespace tool {
namespace {

namespace stdfs = std::filesystem;
using State = FileHead::State;

// A repack or commit of another process takes effect between two looks at the headers.
constexpr int kMostAttempts = 5;
constexpr auto kRetryAfter = std::chrono::milliseconds(50);

bool SameHead(const FileHead& a, const FileHead& b) {
  return a.state == b.state && a.header.recordCount == b.header.recordCount &&
         a.header.sequence == b.header.sequence && a.header.endOffset == b.header.endOffset;
}

// The numbers of /proc/locks are those of the file system, which some report otherwise in stat(2):
// a descriptor of the process decides then.
bool HasOpen(const std::string& pid, const FileId& id) {
  std::error_code code;
  for (const auto& entry : stdfs::directory_iterator("/proc/" + pid + "/fd", code))
    if (IdOf(entry.path().string()) == id) return true;
  return false;
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
  for (auto& [pid, holder] : holders) found.push_back(std::move(holder));
  return found;
}

std::vector<std::string> FilesSetAside(const StoreView& view) {
  std::set<std::string> directories;
  if (!view.isSingleFile())
    for (const SlotFile& file : view.files())
      directories.insert(stdfs::path(file.path).parent_path().string());
  std::vector<std::string> paths;
  std::error_code ignored;
  for (const std::string& directory : directories)
    for (const auto& entry : stdfs::directory_iterator(directory, ignored))
      if (entry.path().filename().string().find(".kept-") != std::string::npos)
        paths.push_back(entry.path().string());
  std::sort(paths.begin(), paths.end());
  return paths;
}

StoreView::StoreView(const StoreOptions& options) : path_(options.directory) {
  std::error_code ignored;
  isSingleFile_ = stdfs::exists(path_, ignored) && !stdfs::is_directory(path_, ignored);
  bool changed = false;
  for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
    if (attempt != 0) std::this_thread::sleep_for(kRetryAfter);
    Build(options);
    changed = HeadsChanged();
    if (!changed) break;
  }
  std::vector<std::string> paths;
  for (const SlotFile& file : files_) paths.push_back(file.path);
  holders_ = HoldersOf(paths);
  for (const Holder& holder : holders_)
    Say("{} is open in process {} ({}) and may be changing", path_, holder.pid, holder.command);
  if (changed) {
    // What looks like damage may be a write in progress.
    for (std::string& finding : findings_) notes_.push_back(std::move(finding));
    findings_.clear();
    notes_.push_back(path_ + " changed while it was looked at");
  }
  for (const std::string& text : findings_) Say("{}", text);
  for (const std::string& text : notes_) Say("{}", text);
}

void StoreView::Build(const StoreOptions& options) {
  current_.clear();
  walked_.clear();
  opened_.clear();
  blobs_.clear();
  findings_.clear();
  notes_.clear();
  slot_.reset();
  if (isSingleFile_) {
    files_ = {SlotFile{path_, ReadHead(path_)}};
    if (files_[0].head.state == State::kDamaged)
      findings_.push_back(path_ + ": the header is damaged");
    current_ = {0};
    const Walked walked = Take(0);
    if (walked.damage)
      findings_.push_back(fmt::format("{} is damaged at {}: {}", path_, walked.damage->offset,
                                      walked.damage->what));
  } else {
    files_ = LayoutOf(options, Access::kLook).ReadFiles();
    ChooseGeneration();
  }
  SortBlobs();
}

// Packs by falling sequence, equal ones in the order of their slots, as a load tries them.
void StoreView::ChooseGeneration() {
  bool isUsed = false;
  for (const SlotFile& file : files_) isUsed = isUsed || file.HasRecords();
  std::vector<size_t> packs;
  int32_t newest = 0;
  for (size_t i = 0; i < files_.size(); ++i) {
    const SlotFile& file = files_[i];
    if (file.head.state == State::kMissing) {
      if (isUsed) findings_.push_back(file.path + " is missing");
    } else if (i % 2 == 0 && !file.IsLoadable()) {
      if (file.head.header.sequence != format::kSequenceReset)
        findings_.push_back(file.path + ": the header is damaged");
    } else if (i % 2 == 0) {
      packs.push_back(i);
      newest = std::max(newest, file.head.header.sequence);
    }
  }
  std::stable_sort(packs.begin(), packs.end(), [this](size_t a, size_t b) {
    return files_[a].head.header.sequence > files_[b].head.header.sequence;
  });
  for (size_t i = 1; i < files_.size(); i += 2)
    if (files_[i].HasRecords() && files_[i].head.header.sequence > newest)
      findings_.push_back(
          fmt::format("{} is newer than every pack: its pack is lost", files_[i].path));
  for (const size_t pack : packs) {
    blobs_.clear();
    const Walked walked = Take(pack);
    if (walked.damage) {
      findings_.push_back(fmt::format("{} is damaged at {}: {}", files_[pack].path,
                                      walked.damage->offset, walked.damage->what));
      continue;
    }
    sequence_ = files_[pack].head.header.sequence;
    slot_ = static_cast<size_t>(sequence_) % slotCount();
    current_ = {pack, 2 * *slot_ + 1};
    return TakeJournal(current_[1]);
  }
  blobs_.clear();
  findings_.push_back("no pack can be loaded");
}

void StoreView::TakeJournal(size_t journal) {
  const SlotFile& file = files_[journal];
  if (file.head.state == State::kMissing) return;
  const Walked walked = Take(journal);
  if (!walked.damage) return;
  if (walked.lastIsTorn)
    notes_.push_back(
        fmt::format("the last transaction of {} was cut off at {}, a power failure interrupted its "
                    "commit; nothing that was committed is lost",
                    file.path, walked.damage->offset));
  else
    findings_.push_back(fmt::format("{} is damaged at {}: {}", file.path, walked.damage->offset,
                                    walked.damage->what));
}

// Walks a file and adds its records to blobs_.
Walked StoreView::Take(size_t index) {
  auto& opened = opened_[index];
  opened = std::make_unique<SalvageFile>(files_[index].path);
  WalkOptions options;
  options.record = [this, index](const WalkedRecord& record) {
    blobs_.push_back({record.hash, record.blobSize, static_cast<uint32_t>(record.offset),
                      static_cast<uint32_t>(index), !record.isStore, record.transactionId});
  };
  const FileHead& head = files_[index].head;
  Progress progress("reading " + files_[index].path, 0);
  uint64_t digested = 0;
  options.progress = [&](uint64_t bytes) {
    digested += bytes;
    progress.ShowBytes(digested, std::max<uint64_t>(digested, head.header.endOffset));
  };
  Walked walked;
  if (head.state != State::kNew) walked = Walk(*opened, head, options);
  walked_[index] = walked;
  return walked;
}

// The last record of each hash decides.
void StoreView::SortBlobs() {
  std::sort(blobs_.begin(), blobs_.end(), [](const ViewedBlob& a, const ViewedBlob& b) {
    return std::tie(a.hash, a.file, a.offset) < std::tie(b.hash, b.file, b.offset);
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

bool StoreView::HeadsChanged() const {
  return std::any_of(files_.begin(), files_.end(), [](const SlotFile& file) {
    return !SameHead(ReadHead(file.path), file.head);
  });
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
         blobs_.size() * uint64_t{format::kStoreHeadSize} + liveBytes_;
}

// The journal of a repacked store is a header alone.
uint64_t StoreView::deadBytes() const {
  uint64_t used = 0;
  for (const size_t file : current_) used += walked_.count(file) != 0 ? walked_.at(file).end : 0;
  return used - std::min(used, repackedBytes() + format::kFileHeaderSize);
}

std::string_view StoreView::Read(const ViewedBlob& blob, Buffer& buffer) const {
  Grow(buffer, blob.size);
  const std::span bytes(buffer.data(), blob.size);
  opened_.at(blob.file)->Read(blob.dataOffset(), reinterpret_cast<unsigned char*>(bytes.data()),
                              bytes.size());
  if (blobring::Hash::of(std::as_bytes(bytes)) != blob.hash) {
    const std::string& file = files_[blob.file].path;
    if (HeadsChanged())
      throw Fault("{} changed while the blob {} was read; try again", file, blob.hash.text());
    throw Fault("cannot read the blob {}: it does not match its hash in {} at {}", blob.hash.text(),
                file, blob.offset);
  }
  return {bytes.data(), bytes.size()};
}

}  // namespace tool
