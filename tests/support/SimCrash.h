// Every disk that could be found after a power cut.
//
// What was not flushed is taken apart into units that reach the medium
// independently of one another:
//   - a 512-byte sector of a file with the updates that touch it: found as on
//     the medium, or after any prefix of those updates;
//   - a file's length: the one on the medium or any that was set later, bytes
//     between that were never written reading as zero;
//   - a name in a directory: as on the medium, or after any prefix of its
//     changes.
// A state is one choice for each unit: 0 for the medium's version, k for the
// version after the k-th change.
#pragma once

#include <cstdint>
#include <vector>

#include "tests/support/SimDisk.h"

namespace sim {

using Choices = std::vector<std::uint16_t>;

class CrashStates {
 public:
  // Takes the disk apart. The disk must stay unchanged while this is in use.
  void Assign(const Disk& disk);

  std::size_t units() const { return versions_.size(); }
  // How many versions unit i can be found in: 2 or more.
  unsigned versions(std::size_t i) const { return versions_[i]; }
  // Number of states, or limit where there are more.
  std::uint64_t Count(std::uint64_t limit) const;

  // The disk found for these choices.
  void Build(const Choices& choices, Image& out) const;

 private:
  struct SectorUnit {
    std::uint32_t sector;
    std::vector<std::uint32_t> updates;  // positions in the inode's pending list
  };
  struct FileUnits {
    int inode;
    std::size_t firstUnit;      // of the sectors, in versions_
    std::vector<SectorUnit> sectors;
    std::size_t sectorCount;
    std::size_t lengthUnit;     // kNone: the length is certain
    std::vector<std::uint32_t> lengths;
  };
  static constexpr std::size_t kNone = ~std::size_t{0};

  void AddFile(int inode);
  void AddSectors(FileUnits& file, const Inode& inode);
  void AddLengths(FileUnits& file, const Inode& inode);
  const FileUnits* UnitsOf(int inode) const;
  void BuildFile(int inode, const Choices& choices, Bytes& out) const;

  const Disk* disk_ = nullptr;
  std::vector<std::uint16_t> versions_;
  std::vector<std::size_t> nameUnits_;  // for each name its unit, or kNone
  std::vector<FileUnits> files_;        // the first fileCount_ are in use
  std::size_t fileCount_ = 0;
};

// 64 bits of the image's names and contents, for telling images apart.
std::uint64_t Hash(const Image& image);

}  // namespace sim
