// Memory from the system, in regions that begin at a multiple of 64 KiB: the
// region of any address in its first 64 KiB is found by masking the address.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform {

constexpr std::size_t kRegionSize = 64 * 1024;

// Maps at least size bytes, in whole pages, and stores how many in *mapped.
// Null when the system has none. Threads: one caller at a time for these.
void* MapRegion(std::size_t size, std::size_t* mapped);

// Gives back what MapRegion gave.
void UnmapRegion(void* region, std::size_t mapped);

// The mapped region that begins at or less than 64 KiB below an address, of
// whatever origin the address; null when there is none. Touches nothing there.
void* RegionOf(void* address);

}  // namespace platform
