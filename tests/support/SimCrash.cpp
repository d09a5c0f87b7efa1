#include "tests/support/SimCrash.h"

#include <algorithm>
#include <cstring>

namespace sim {

namespace {

constexpr std::size_t kMaxVersions = 65535;

std::uint64_t Mix(std::uint64_t hash, std::uint64_t value) {
  hash ^= value;
  hash *= 0x9E3779B97F4A7C15U;
  return hash ^ (hash >> 29);
}

std::uint64_t HashBytes(std::uint64_t hash, const void* data, std::size_t size) {
  const auto* at = static_cast<const std::uint8_t*>(data);
  hash = Mix(hash, size);
  for (; size >= 8; at += 8, size -= 8) {
    std::uint64_t word;
    std::memcpy(&word, at, 8);
    hash = Mix(hash, word);
  }
  std::uint64_t word = 0;
  std::memcpy(&word, at, size);
  return Mix(hash, word);
}

// Brings into `bytes` what `update` leaves of the sector that starts at
// `begin`; bytes is long enough for every update.
void ApplyToSector(const Inode& inode, const Update& update, std::size_t begin, Bytes& bytes) {
  const std::size_t end = begin + kSectorSize;
  if (update.truncate) {
    const std::size_t from = std::max<std::size_t>(begin, update.lengthAfter);
    const std::size_t to = std::min(end, bytes.size());
    if (from < to) std::memset(bytes.data() + from, 0, to - from);
    return;
  }
  const std::size_t from = std::max<std::size_t>(begin, update.offset);
  const std::size_t to = std::min<std::size_t>(end, std::size_t{update.offset} + update.size);
  std::memcpy(bytes.data() + from, inode.pendingBytes.data() + update.data + (from - update.offset), to - from);
}

bool Touches(const Update& update, std::size_t begin) {
  if (update.truncate) return update.lengthAfter < begin + kSectorSize;
  return update.offset < begin + kSectorSize && std::size_t{update.offset} + update.size > begin;
}

std::size_t LongestLength(const Inode& inode) {
  std::size_t longest = inode.durable.size();
  for (const Update& update : inode.pending) longest = std::max<std::size_t>(longest, update.lengthAfter);
  return longest;
}

}  // namespace

std::uint64_t Hash(const Image& image) {
  std::uint64_t hash = 0x243F6A8885A308D3U;
  for (std::size_t i = 0; i < image.count; ++i) {
    const ImageFile& file = image.files[i];
    hash = HashBytes(hash, file.path.data(), file.path.size());
    hash = HashBytes(hash, file.bytes.data(), file.bytes.size());
  }
  return hash;
}

void CrashStates::Assign(const Disk& disk) {
  disk_ = &disk;
  versions_.clear();
  nameUnits_.clear();
  fileCount_ = 0;
  for (const Name& name : disk.names()) {
    nameUnits_.push_back(name.pending.empty() ? kNone : versions_.size());
    if (!name.pending.empty())
      versions_.push_back(static_cast<std::uint16_t>(std::min(name.pending.size() + 1, kMaxVersions)));
    AddFile(name.durable);
    for (const int inode : name.pending) AddFile(inode);
  }
}

const CrashStates::FileUnits* CrashStates::UnitsOf(int inode) const {
  for (std::size_t i = 0; i < fileCount_; ++i)
    if (files_[i].inode == inode) return &files_[i];
  return nullptr;
}

void CrashStates::AddFile(int index) {
  if (index == kNoInode || UnitsOf(index) != nullptr) return;
  const Inode& inode = disk_->inode(index);
  if (inode.pending.empty()) return;
  if (fileCount_ == files_.size()) files_.emplace_back();
  FileUnits& file = files_[fileCount_++];
  file.inode = index;
  AddSectors(file, inode);
  AddLengths(file, inode);
}

void CrashStates::AddSectors(FileUnits& file, const Inode& inode) {
  file.firstUnit = versions_.size();
  file.sectorCount = 0;
  const std::size_t longest = LongestLength(inode);
  for (std::size_t begin = 0; begin < longest; begin += kSectorSize) {
    SectorUnit* unit = nullptr;
    for (std::uint32_t u = 0; u < inode.pending.size(); ++u) {
      if (!Touches(inode.pending[u], begin)) continue;
      if (unit == nullptr) {
        if (file.sectorCount == file.sectors.size()) file.sectors.emplace_back();
        unit = &file.sectors[file.sectorCount++];
        unit->sector = static_cast<std::uint32_t>(begin / kSectorSize);
        unit->updates.clear();
      }
      unit->updates.push_back(u);
    }
    if (unit != nullptr)
      versions_.push_back(static_cast<std::uint16_t>(std::min(unit->updates.size() + 1, kMaxVersions)));
  }
}

void CrashStates::AddLengths(FileUnits& file, const Inode& inode) {
  file.lengths.assign(1, static_cast<std::uint32_t>(inode.durable.size()));
  for (const Update& update : inode.pending)
    if (update.lengthAfter != file.lengths.back()) file.lengths.push_back(update.lengthAfter);
  file.lengthUnit = kNone;
  if (file.lengths.size() == 1) return;
  file.lengthUnit = versions_.size();
  versions_.push_back(static_cast<std::uint16_t>(std::min(file.lengths.size(), kMaxVersions)));
}

std::uint64_t CrashStates::Count(std::uint64_t limit) const {
  std::uint64_t count = 1;
  for (const std::uint16_t versions : versions_) {
    count *= versions;
    if (count >= limit) return limit;
  }
  return count;
}

void CrashStates::BuildFile(int index, const Choices& choices, Bytes& out) const {
  const Inode& inode = disk_->inode(index);
  out = inode.durable;
  const FileUnits* file = UnitsOf(index);
  if (file == nullptr) return;
  out.resize(LongestLength(inode));
  for (std::size_t s = 0; s < file->sectorCount; ++s) {
    const SectorUnit& unit = file->sectors[s];
    for (std::size_t k = 0; k < choices[file->firstUnit + s]; ++k)
      ApplyToSector(inode, inode.pending[unit.updates[k]], std::size_t{unit.sector} * kSectorSize, out);
  }
  out.resize(file->lengthUnit == kNone ? file->lengths[0] : file->lengths[choices[file->lengthUnit]]);
}

void CrashStates::Build(const Choices& choices, Image& out) const {
  out.Clear();
  const std::vector<Name>& names = disk_->names();
  for (std::size_t i = 0; i < names.size(); ++i) {
    const std::size_t choice = nameUnits_[i] == kNone ? 0 : choices[nameUnits_[i]];
    const int inode = choice == 0 ? names[i].durable : names[i].pending[choice - 1];
    if (inode != kNoInode) BuildFile(inode, choices, out.Add(names[i].path));
  }
}

}  // namespace sim
