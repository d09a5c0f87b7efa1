// The allocator of every container of the store: one pool and one tag for
// each kind of container. Stateless; all of one instantiation compare equal.
#pragma once

#include <cstddef>
#include <limits>

#include "platform/BlobStoreBase.h"
#include "platform/Failure.h"

// What the tag of a block says that it is for.
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
  BlobAllocator(const BlobAllocator<U, Pool, Tag>&) {
  }  // NOLINT(google-explicit-constructor): allocator requirement

  // Throws std::runtime_error("Unable to allocate memory").
  T* allocate(std::size_t n) {
    constexpr std::size_t kSize =
        sizeof(T);  // NOLINT(bugprone-sizeof-expression): T may be a pointer
    if (n > std::numeric_limits<std::size_t>::max() / kSize)
      throw Failure(FailureCode::Memory, "Unable to allocate memory");
    return static_cast<T*>(pooled::Acquire(n * kSize, Pool, Tag));
  }

  // The containers release from functions that may not throw, and a vector
  // that grows would be left in pieces: a refusal is traced, see
  // pooled::ReleaseOrTrace.
  void deallocate(T* p, std::size_t) noexcept { pooled::ReleaseOrTrace(p); }

  friend bool operator==(const BlobAllocator&, const BlobAllocator&) { return true; }
};
