// One region that holds either blocks of one size or a single large block.
//
// The header at the region's start says which blocks are live, one bit each,
// so a block costs nothing beside its bytes, memory that was given back is
// never written to, and a wrong address or a second release is told from a
// right one.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/posix/Regions.h"

namespace platform {

struct Account;

struct Slab {
  Account* account;
  Slab* previous;  // in the account's list of slabs that have room
  Slab* next;
  std::size_t mappedSize;
  std::size_t blockSize;
  std::uint32_t sizeClass;
  std::uint32_t capacity;    // blocks
  std::uint32_t liveCount;   // blocks
  std::uint32_t firstBlock;  // offset in the region
  std::uint32_t reciprocal;  // turns an offset into a block's number
  std::uint32_t firstRoom;   // no word of the bitmap before this one has a free bit
  // The bitmap follows.
};

// Size classes: steps of 8 bytes up to 1024; then as many bytes as a region
// holds 63, 62 ... 4 times; then a region of its own for each block.
constexpr std::size_t kMaxSmallSize = 1024;
constexpr std::size_t kMaxHeaderSize = 256;  // of a region for more than kMaxSmallSize
constexpr std::size_t kMinBlocksPerRegion = 4;
constexpr std::uint32_t kSmallClassCount = kMaxSmallSize / 8;
constexpr std::uint32_t kLargeClass =
    kSmallClassCount + (kRegionSize - kMaxHeaderSize) / kMaxSmallSize - kMinBlocksPerRegion + 1;

struct SizeClass {
  std::uint32_t number;   // kLargeClass for a region of its own
  std::size_t blockSize;  // bytes, a multiple of 8, of 16 where size is one; as asked for a large block
};
SizeClass SizeClassOf(std::size_t size);

// Maps a slab, or lays one out in a region mapped for kRegionSize. Null when
// the system has no memory.
Slab* MapSlab(SizeClass sizeClass, Account* account);
Slab* LayOutSlab(void* region, SizeClass sizeClass, Account* account);

inline bool HasRoom(const Slab& slab) {
  return slab.liveCount < slab.capacity;
}

// A block of a slab that has room; the first `size` bytes may be used.
void* TakeBlock(Slab& slab, std::size_t size);

// Ends a block's life. False, and nothing done, when no live block of the
// slab begins at that address.
bool ReturnBlock(Slab& slab, void* block);

}  // namespace platform
