#include "platform/BlobStoreBase.h"

#include <stdexcept>

#include "platform/Failure.h"
#include "platform/Trace.h"

namespace {

// What the platform wants to be told with every request.
constexpr unsigned kManagerKind = 2048;

}  // namespace

BlobStoreBase::BlobStoreBase() : allocationTag(kAllocationTag) {}

BlobStoreBase::~BlobStoreBase() = default;

void* BlobStoreBase::operator new(std::size_t size) {
  return pooled::Acquire(size, TesselMemoryManager::kStorePool, kAllocationTag);
}

void BlobStoreBase::operator delete(void* p) noexcept(false) {
  if (p != nullptr) pooled::Release(p);
}

namespace pooled {

void* Acquire(std::size_t size, unsigned pool, unsigned tag) {
  void* block = nullptr;
  TesselMemoryManager::GetInstance(kManagerKind)
      ->Alloc(&block, size, pool, Vell::Common::System::OS::Memory::kLifeSpanDefault, tag);
  if (block == nullptr) throw Failure(FailureCode::Memory, "Unable to allocate memory");
  return block;
}

void Release(void* p) {
  if (TesselMemoryManager::GetInstance(kManagerKind)->Free(p) < 0)
    throw std::runtime_error("Unable to free memory");
}

void ReleaseOrTrace(void* p) noexcept {
  try {
    Release(p);
  } catch (const std::exception& e) {
    trace::engine.WriteErrorV("%s", e.what());
  }
}

}  // namespace pooled
