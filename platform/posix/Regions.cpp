#include "platform/posix/Regions.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <limits>

#include "platform/posix/Sanitizer.h"

namespace platform {
namespace {

// Which regions are mapped: one bit each in leaves that are made as they are
// needed. A leaf serves 16 GiB of addresses, on 32-bit hosts all there are;
// of its 32 KiB only the pages in use are ever touched.
constexpr unsigned kAddressBits = sizeof(void*) == 8 ? 48 : 32;
constexpr unsigned kRegionBits = 16;
constexpr unsigned kLeafBits = std::min(18U, kAddressBits - kRegionBits);
constexpr std::size_t kLeafCount = std::size_t{1} << (kAddressBits - kRegionBits - kLeafBits);
static_assert(std::size_t{1} << kRegionBits == kRegionSize);

using Word = std::uint32_t;
constexpr unsigned kWordBits = 32;
struct Leaf {
  Word words[(1U << kLeafBits) / kWordBits];
};
constinit Leaf* leaves[kLeafCount] = {};

struct Place {
  std::uintptr_t leaf;
  std::size_t word;
  Word bit;
};

Place PlaceOf(std::uintptr_t address) {
  const std::uintptr_t number = address >> kRegionBits;
  const std::size_t inLeaf = number % (std::uintptr_t{1} << kLeafBits);
  return {number >> kLeafBits, inLeaf / kWordBits, Word{1} << (inLeaf % kWordBits)};
}

std::uintptr_t AddressOf(const void* pointer) {
  return reinterpret_cast<std::uintptr_t>(pointer);
}

std::size_t PageSize() {
  static const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return size;
}

char* Map(std::size_t size) {
  void* start = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return start == MAP_FAILED ? nullptr : static_cast<char*>(start);
}

void Unmap(char* start, std::size_t size) {
  if (size != 0) munmap(start, size);
}

// Maps more than is asked for and gives back what lies off the boundary.
char* MapAligned(std::size_t size) {
  const std::size_t slack = kRegionSize - PageSize();
  if (size > std::numeric_limits<std::size_t>::max() - slack) return nullptr;
  char* start = Map(size + slack);
  if (start == nullptr) return nullptr;
  const std::size_t before = (kRegionSize - AddressOf(start) % kRegionSize) % kRegionSize;
  Unmap(start, before);
  Unmap(start + before + size, slack - before);
  return start + before;
}

// The kernel mostly places a mapping next to the last one, so that regions of
// 64 KiB are aligned once the first is.
char* MapStandard() {
  char* start = Map(kRegionSize);
  if (start == nullptr || AddressOf(start) % kRegionSize == 0) return start;
  Unmap(start, kRegionSize);
  return MapAligned(kRegionSize);
}

bool Mark(const void* region) {
  const Place place = PlaceOf(AddressOf(region));
  if (place.leaf >= kLeafCount) return false;
  Leaf*& leaf = leaves[place.leaf];
  if (leaf == nullptr) leaf = reinterpret_cast<Leaf*>(Map(sizeof(Leaf)));
  if (leaf == nullptr) return false;
  leaf->words[place.word] |= place.bit;
  return true;
}

}  // namespace

void* MapRegion(std::size_t size, std::size_t* mapped) {
  const std::size_t page = PageSize();
  if (size > std::numeric_limits<std::size_t>::max() - page) return nullptr;
  const std::size_t whole = (size + page - 1) / page * page;
  char* region = whole == kRegionSize ? MapStandard() : MapAligned(whole);
  if (region == nullptr) return nullptr;
  if (!Mark(region)) {
    Unmap(region, whole);
    return nullptr;
  }
  AnnounceMapping(region, whole);
  *mapped = whole;
  return region;
}

void UnmapRegion(void* region, std::size_t mapped) {
  const Place place = PlaceOf(AddressOf(region));
  leaves[place.leaf]->words[place.word] &= ~place.bit;
  RevokeMapping(region, mapped);
  Unmap(static_cast<char*>(region), mapped);
}

void* RegionOf(void* address) {
  const Place place = PlaceOf(AddressOf(address));
  if (place.leaf >= kLeafCount || leaves[place.leaf] == nullptr) return nullptr;
  if ((leaves[place.leaf]->words[place.word] & place.bit) == 0) return nullptr;
  return static_cast<char*>(address) - AddressOf(address) % kRegionSize;
}

}  // namespace platform
