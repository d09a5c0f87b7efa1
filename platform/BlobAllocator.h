// The allocator of every container of the store: one pool and one tag for each kind of container.
// Stateless; all of one instantiation compare equal.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

#include "platform/BlobStoreBase.h"
#include "platform/Failure.h"

// Allocation tags, by container.
enum BlobTag : unsigned {
  kTagPathList = 31064065,
  kTagIndex = 31064068,
  kTagBytes = 31064076,
  kTagEntries = 31064077,
  kTagFiles = 31064078,
};

template <class T, TesselMemoryManager::Pool Pool, unsigned Tag>
class BlobAllocator {
 public:
  using value_type = T;
  template <class U>
  struct rebind {
    using other = BlobAllocator<U, Pool, Tag>;
  };

  BlobAllocator() = default;
  template <class U>
  BlobAllocator(const BlobAllocator<U, Pool, Tag>&) {}  // NOLINT(google-explicit-constructor)

  // Throws std::runtime_error("Unable to allocate memory"). Containers keep n within max_size().
  T* allocate(std::size_t n) {
    constexpr std::size_t kSize =
        sizeof(T);  // NOLINT(bugprone-sizeof-expression): may be a pointer
    return static_cast<T*>(pooled::Acquire(n * kSize, Pool, Tag));
  }

  // The containers release from functions that may not throw, and a vector that grows would be left
  // in pieces: a refusal is traced, see pooled::ReleaseOrTrace.
  void deallocate(T* p, std::size_t) noexcept { pooled::ReleaseOrTrace(p); }

  friend bool operator==(const BlobAllocator&, const BlobAllocator&) { return true; }
};

using PooledBytes =
    std::vector<unsigned char,
                BlobAllocator<unsigned char, TesselMemoryManager::kContainerPool, kTagBytes>>;

// Best-effort resize to `wanted` elements: if memory is short, to wanted/2, wanted/4, ..., but at
// least `least`.
// Throws Failure("Unable to allocate memory") when not even these can be had.
template <class Vector>
void ResizeOrSmaller(Vector& vector, std::size_t wanted, std::size_t least) {
  for (std::size_t size = std::max(wanted, least);; size = std::max(size / 2, least)) {
    try {
      vector.resize(size);
      return;
    } catch (const Failure& e) {
      if (e.code != FailureCode::Memory || size == least) throw;
    }
  }
}
