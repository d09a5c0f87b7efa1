// Root of the store's classes: its objects live in the platform's pool 20.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

#include "platform/Export.h"
#include "platform/MemoryManager.h"

using Vell::Common::System::OS::Memory::TesselMemoryManager;

class BLOBRING_EXPORT BlobStoreBase {
 public:
  static constexpr std::uint32_t kAllocationTag = 31064064;

  BlobStoreBase();
  BlobStoreBase(const BlobStoreBase&) = default;
  BlobStoreBase& operator=(const BlobStoreBase&) = default;
  virtual ~BlobStoreBase();

  // Throws std::runtime_error("Unable to allocate memory").
  static void* operator new(std::size_t size);

  // Throws std::runtime_error("Unable to free memory") when the platform refuses. Objects that a
  // shared pointer owns never get here: see MakePooled.
  static void operator delete(void* p) noexcept(false);

  std::uint32_t allocationTag;
};

namespace pooled {

// Throws Failure("Unable to allocate memory"), which takes no memory itself.
[[noreturn]] void ThrowNoMemory();

// Throws std::runtime_error("Unable to allocate memory").
void* Acquire(std::size_t size, unsigned pool, unsigned tag);

// For releases that an exception cannot leave, which are those by destructors and containers: when
// the platform refuses, "Unable to free memory" is traced and the block is lost.
void ReleaseOrTrace(void* p) noexcept;

}  // namespace pooled

// Makes an object of a BlobStoreBase class in its pool. Where the platform refuses to take the
// memory back, the object is destroyed all the same. Throws "Unable to allocate memory" and what
// the constructor throws.
template <class T, class... Arguments>
boost::shared_ptr<T> MakePooled(Arguments&&... arguments) {
  void* memory = BlobStoreBase::operator new(sizeof(T));
  T* object = nullptr;
  try {
    object = ::new (memory) T(std::forward<Arguments>(arguments)...);
  } catch (...) {
    pooled::ReleaseOrTrace(memory);
    throw;
  }
  return boost::shared_ptr<T>(object, [](T* p) noexcept {
    p->~T();
    pooled::ReleaseOrTrace(p);
  });
}
