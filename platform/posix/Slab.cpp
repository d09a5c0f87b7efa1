#include "platform/posix/Slab.h"

#include <algorithm>
#include <bit>
#include <limits>

#include "platform/posix/Sanitizer.h"

namespace platform {
namespace {

using Word = std::size_t;
constexpr std::uint32_t kWordBits = sizeof(Word) * 8;
constexpr std::size_t kAlignment = 16;

// A large block starts on a cache line of its own.
constexpr std::size_t kLargeBlockOffset = 128;
static_assert(sizeof(Slab) + sizeof(Word) <= kLargeBlockOffset);

constexpr std::size_t RoundUp(std::size_t value, std::size_t step) {
  return (value + step - 1) / step * step;
}

constexpr std::uint32_t WordCount(std::size_t capacity) {
  return static_cast<std::uint32_t>((capacity + kWordBits - 1) / kWordBits);
}

// Blocks that a region holds beside its header: each takes its bytes and a
// bit. What the roundings may cost is set aside.
constexpr std::size_t CapacityOf(std::size_t blockSize) {
  return (kRegionSize - sizeof(Slab) - sizeof(Word) - kAlignment) * 8 / (blockSize * 8 + 1);
}
static_assert(sizeof(Slab) + sizeof(Word) + kAlignment <= kMaxHeaderSize);

Word* BitmapOf(Slab& slab) {
  return reinterpret_cast<Word*>(&slab + 1);
}

char* StartOf(Slab& slab) {
  return reinterpret_cast<char*>(&slab);
}

void MarkAllFree(Slab& slab) {
  Word* bitmap = BitmapOf(slab);
  const std::uint32_t words = WordCount(slab.capacity);
  std::fill_n(bitmap, words, Word{0});
  // Bits of no block count as live and are never taken.
  if (slab.capacity % kWordBits != 0) bitmap[words - 1] = ~Word{0} << (slab.capacity % kWordBits);
}

Slab* LayOut(void* region, SizeClass sizeClass, Account* account, std::size_t mappedSize) {
  Permit(region, mappedSize);
  Slab* slab = static_cast<Slab*>(region);
  *slab = {};
  slab->account = account;
  slab->mappedSize = mappedSize;
  slab->blockSize = sizeClass.blockSize;
  slab->sizeClass = sizeClass.number;
  if (sizeClass.number == kLargeClass) {
    slab->capacity = 1;
    slab->firstBlock = kLargeBlockOffset;
  } else {
    slab->capacity = static_cast<std::uint32_t>(CapacityOf(sizeClass.blockSize));
    const std::size_t header = sizeof(Slab) + WordCount(slab->capacity) * sizeof(Word);
    slab->firstBlock = static_cast<std::uint32_t>(RoundUp(header, kAlignment));
    // Rounded up, 2^32 / blockSize gives exact quotients for all offsets in
    // a region: the error, under offset / 2^32, stays below 1 / blockSize.
    slab->reciprocal = static_cast<std::uint32_t>((std::uint64_t{1} << 32) / sizeClass.blockSize + 1);
  }
  MarkAllFree(*slab);
  Forbid(StartOf(*slab) + slab->firstBlock, mappedSize - slab->firstBlock);
  return slab;
}

}  // namespace

SizeClass SizeClassOf(std::size_t size) {
  if (size <= kMaxSmallSize) {
    const std::size_t steps = size == 0 ? 1 : (size + 7) / 8;
    return {static_cast<std::uint32_t>(steps - 1), steps * 8};
  }
  constexpr std::size_t kRoom = kRegionSize - kMaxHeaderSize;
  if (size > kRoom / kMinBlocksPerRegion / kAlignment * kAlignment) return {kLargeClass, size};
  const std::size_t perRegion = kRoom / RoundUp(size, kAlignment);
  return {static_cast<std::uint32_t>(kSmallClassCount + perRegion - kMinBlocksPerRegion),
          kRoom / perRegion / kAlignment * kAlignment};
}

Slab* MapSlab(SizeClass sizeClass, Account* account) {
  std::size_t size = kRegionSize;
  if (sizeClass.number == kLargeClass) {
    if (sizeClass.blockSize > std::numeric_limits<std::size_t>::max() - kLargeBlockOffset) return nullptr;
    size = kLargeBlockOffset + sizeClass.blockSize;
  }
  std::size_t mapped = 0;
  void* region = MapRegion(size, &mapped);
  return region == nullptr ? nullptr : LayOut(region, sizeClass, account, mapped);
}

Slab* LayOutSlab(void* region, SizeClass sizeClass, Account* account) {
  return LayOut(region, sizeClass, account, kRegionSize);
}

void* TakeBlock(Slab& slab, std::size_t size) {
  Word* bitmap = BitmapOf(slab);
  std::uint32_t word = slab.firstRoom;
  while (bitmap[word] == ~Word{0}) ++word;
  slab.firstRoom = word;
  const auto bit = static_cast<std::uint32_t>(std::countr_one(bitmap[word]));
  bitmap[word] |= Word{1} << bit;
  ++slab.liveCount;
  void* block = StartOf(slab) + slab.firstBlock + (word * kWordBits + bit) * slab.blockSize;
  Permit(block, size);
  return block;
}

bool ReturnBlock(Slab& slab, void* block) {
  // Below the first block this wraps, and is past the last one too.
  const std::size_t offset = static_cast<std::size_t>(static_cast<char*>(block) - StartOf(slab)) - slab.firstBlock;
  if (offset >= kRegionSize) return false;
  const auto number = static_cast<std::uint32_t>(std::uint64_t{offset} * slab.reciprocal >> 32);
  if (number >= slab.capacity || number * slab.blockSize != offset) return false;

  const std::uint32_t word = number / kWordBits;
  const Word bit = Word{1} << (number % kWordBits);
  Word* bitmap = BitmapOf(slab);
  if ((bitmap[word] & bit) == 0) return false;
  bitmap[word] &= ~bit;
  slab.firstRoom = std::min(slab.firstRoom, word);
  --slab.liveCount;
  Forbid(block, slab.blockSize);
  return true;
}

}  // namespace platform
