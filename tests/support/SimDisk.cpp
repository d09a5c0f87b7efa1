#include "tests/support/SimDisk.h"

#include <algorithm>
#include <cassert>
#include <cstring>

namespace sim {

std::string_view DirectoryOf(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

Bytes& Image::Add(std::string_view path) {
  if (count == files.size()) files.emplace_back();
  ImageFile& file = files[count++];
  file.path = path;
  file.bytes.clear();
  return file.bytes;
}

const Bytes* Image::Find(std::string_view path) const {
  for (std::size_t i = 0; i < count; ++i)
    if (files[i].path == path) return &files[i].bytes;
  return nullptr;
}

Bytes* Image::Find(std::string_view path) {
  return const_cast<Bytes*>(static_cast<const Image*>(this)->Find(path));
}

void Disk::Clear() {
  directories_.clear();
  names_.clear();
  inodeCount_ = 0;
}

void Disk::Load(const Image& image) {
  names_.resize(image.count);
  inodeCount_ = 0;
  for (std::size_t i = 0; i < image.count; ++i) {
    Name& name = names_[i];
    name.path = image.files[i].path;
    name.pending.clear();
    name.durable = name.visible = NewInode();
    Inode& inode = At(name.durable);
    inode.durable = image.files[i].bytes;
    inode.visible = image.files[i].bytes;
  }
}

void Disk::Visible(Image& out) const {
  out.Clear();
  for (const Name& name : names_)
    if (name.visible != kNoInode) out.Add(name.path) = inode(name.visible).visible;
}

void Disk::MakeDirectory(std::string_view path) {
  if (!HasDirectory(path)) directories_.emplace_back(path);
}

bool Disk::RemoveDirectory(std::string_view path) {
  const auto at = std::find(directories_.begin(), directories_.end(), path);
  if (at == directories_.end()) return false;
  directories_.erase(at);
  return true;
}

bool Disk::HasDirectory(std::string_view path) const {
  return std::find(directories_.begin(), directories_.end(), path) != directories_.end();
}

bool Disk::DirectoryIsEmpty(std::string_view path) const {
  return List(path).empty();
}

std::vector<std::string> Disk::List(std::string_view directory) const {
  std::vector<std::string> entries;
  for (const Name& name : names_)
    if (name.visible != kNoInode && DirectoryOf(name.path) == directory)
      entries.push_back(name.path.substr(directory.size() + 1));
  for (const std::string& path : directories_)
    if (DirectoryOf(path) == directory && path != directory) entries.push_back(path.substr(directory.size() + 1));
  return entries;
}

const Name* Disk::FindName(std::string_view path) const {
  for (const Name& name : names_)
    if (name.path == path) return &name;
  return nullptr;
}

Name& Disk::NameAt(std::string_view path) {
  for (Name& name : names_)
    if (name.path == path) return name;
  names_.emplace_back();
  names_.back().path = path;
  return names_.back();
}

int Disk::Lookup(std::string_view path) const {
  const Name* name = FindName(path);
  return name == nullptr ? kNoInode : name->visible;
}

int Disk::NewInode() {
  if (inodeCount_ == inodes_.size()) inodes_.emplace_back();
  Inode& inode = inodes_[inodeCount_];
  inode.durable.clear();
  inode.visible.clear();
  inode.pending.clear();
  inode.pendingBytes.clear();
  return static_cast<int>(inodeCount_++);
}

int Disk::Create(std::string_view path) {
  const int inode = NewInode();
  Name& name = NameAt(path);
  name.visible = inode;
  name.pending.push_back(inode);
  return inode;
}

void Disk::Remove(std::string_view path) {
  Name& name = NameAt(path);
  name.visible = kNoInode;
  name.pending.push_back(kNoInode);
}

void Disk::Rename(std::string_view from, std::string_view to) {
  const int inode = Lookup(from);
  assert(inode != kNoInode);
  Name& target = NameAt(to);
  target.visible = inode;
  target.pending.push_back(inode);
  Remove(from);
}

void Disk::SyncDirectory(std::string_view directory) {
  for (Name& name : names_) {
    if (DirectoryOf(name.path) != directory) continue;
    name.durable = name.visible;
    name.pending.clear();
  }
}

void Disk::Write(int index, std::uint32_t offset, const void* data, std::uint32_t size) {
  if (size == 0) return;
  Inode& inode = At(index);
  const std::size_t end = std::size_t{offset} + size;
  if (inode.visible.size() < end) inode.visible.resize(end);
  std::memcpy(inode.visible.data() + offset, data, size);
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  inode.pending.push_back(
      {offset, size, inode.pendingBytes.size(), static_cast<std::uint32_t>(inode.visible.size()), false});
  inode.pendingBytes.insert(inode.pendingBytes.end(), bytes, bytes + size);
}

void Disk::WriteThrough(int index, std::uint32_t offset, const void* data, std::uint32_t size) {
  Inode& inode = At(index);
  const std::size_t end = std::size_t{offset} + size;
  for (Bytes* bytes : {&inode.durable, &inode.visible}) {
    if (bytes->size() < end) bytes->resize(end);
    std::memcpy(bytes->data() + offset, data, size);
  }
}

void Disk::Truncate(int index, std::uint32_t length) {
  Inode& inode = At(index);
  if (inode.visible.size() == length) return;
  inode.visible.resize(length);
  inode.pending.push_back({0, 0, 0, length, true});
}

void Disk::Flush(int index) {
  Inode& inode = At(index);
  for (const Update& update : inode.pending) {
    inode.durable.resize(update.lengthAfter);
    if (!update.truncate)
      std::memcpy(inode.durable.data() + update.offset, inode.pendingBytes.data() + update.data, update.size);
  }
  inode.pending.clear();
  inode.pendingBytes.clear();
}

void Disk::DropUpdates(int index, bool keepVisible) {
  Inode& inode = At(index);
  inode.pending.clear();
  inode.pendingBytes.clear();
  if (!keepVisible) inode.visible = inode.durable;
}

void Disk::FlipByte(std::string_view path, std::uint32_t offset) {
  Inode& inode = At(Lookup(path));
  for (Bytes* bytes : {&inode.durable, &inode.visible})
    if (offset < bytes->size()) (*bytes)[offset] = static_cast<std::uint8_t>(~(*bytes)[offset]);
}

void Disk::CutOff(std::string_view path, std::uint32_t length) {
  Inode& inode = At(Lookup(path));
  for (Bytes* bytes : {&inode.durable, &inode.visible})
    if (length < bytes->size()) bytes->resize(length);
}

void Disk::LoseUnflushed() {
  for (Name& name : names_) {
    name.visible = name.durable;
    name.pending.clear();
  }
  for (std::size_t i = 0; i < inodeCount_; ++i) DropUpdates(static_cast<int>(i), false);
}

}  // namespace sim
