// The state of a simulated disk: for every file what a power cut leaves for
// certain, and every write, length change and name change since that may or
// may not have reached it. A value: copying it is a snapshot.
//
// Knows nothing of handles, faults or the platform's calls (SimFiles.h), nor
// of what a power cut makes of the uncertain part (SimCrash.h).
// Paths are narrow; a directory is everything before the last '/'. Making and
// removing a directory is durable at once. Nothing here fails: asking for an
// inode or name that is not there is a fault of the caller.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t kSectorSize = 512;
constexpr int kNoInode = -1;

// One change of a file that was not flushed: `size` bytes at `offset`, kept
// at `data` in the inode's pendingBytes; or, where truncate is set, the
// length cut to lengthAfter.
struct Update {
  std::uint32_t offset;
  std::uint32_t size;
  std::size_t data;
  std::uint32_t lengthAfter;
  bool truncate;
};

struct Inode {
  Bytes durable;                // what is on the medium
  Bytes visible;                // what a reader sees
  std::vector<Update> pending;  // since the last flush, in order
  Bytes pendingBytes;
};

// A name and the inode it leads to: on the medium, to a reader, and after
// each change since its directory was last synced. kNoInode: no such entry.
struct Name {
  std::string path;
  int durable = kNoInode;
  int visible = kNoInode;
  std::vector<int> pending;
};

// The files that can be found on a disk, whole: paths and contents.
struct ImageFile {
  std::string path;
  Bytes bytes;
};
struct Image {
  std::vector<ImageFile> files;  // the first `count` count; the rest is kept for its memory
  std::size_t count = 0;

  void Clear() { count = 0; }
  Bytes& Add(std::string_view path);
  const Bytes* Find(std::string_view path) const;
  Bytes* Find(std::string_view path);
};

class Disk {
 public:
  // Forgets everything, directories included.
  void Clear();
  // Replaces all files by the image's, durable; the directories stay.
  void Load(const Image& image);
  // What a reader sees now, which is also what a killed process leaves.
  void Visible(Image& out) const;

  void MakeDirectory(std::string_view path);
  bool RemoveDirectory(std::string_view path);  // false: not there
  bool HasDirectory(std::string_view path) const;
  bool DirectoryIsEmpty(std::string_view path) const;
  // Names of the entries of a directory, in the order of their creation.
  std::vector<std::string> List(std::string_view directory) const;

  int Lookup(std::string_view path) const;  // kNoInode: no such file
  int Create(std::string_view path);        // its name pending
  void Remove(std::string_view path);       // its name pending
  // Leads `to` to the file of `from`. Pending until SyncDirectory.
  void Rename(std::string_view from, std::string_view to);
  void SyncDirectory(std::string_view directory);

  void Write(int inode, std::uint32_t offset, const void* data, std::uint32_t size);
  // A write that reaches the medium at once, ahead of those before it.
  void WriteThrough(int inode, std::uint32_t offset, const void* data, std::uint32_t size);
  void Truncate(int inode, std::uint32_t length);
  // Everything written to the inode so far is durable.
  void Flush(int inode);
  // What a failed flush does: the updates are gone from memory without having
  // reached the medium. Readers see the medium's contents again, or
  // (keepVisible) still what was written.
  void DropUpdates(int inode, bool keepVisible);

  // Damage to the medium itself: every bit of one byte turned over, the rest
  // of the file gone.
  void FlipByte(std::string_view path, std::uint32_t offset);
  void CutOff(std::string_view path, std::uint32_t length);

  // Everything that was not flushed is lost.
  void LoseUnflushed();

  const std::vector<Name>& names() const { return names_; }
  const Inode& inode(int index) const { return inodes_[static_cast<std::size_t>(index)]; }

 private:
  Name& NameAt(std::string_view path);
  const Name* FindName(std::string_view path) const;
  int NewInode();
  Inode& At(int index) { return inodes_[static_cast<std::size_t>(index)]; }

  std::vector<std::string> directories_;
  std::vector<Name> names_;
  std::vector<Inode> inodes_;  // the first inodeCount_ are in use; a Load starts anew
  std::size_t inodeCount_ = 0;
};

// The part of a path before the last '/'.
std::string_view DirectoryOf(std::string_view path);

}  // namespace sim
