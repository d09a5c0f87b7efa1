#include "platform/BlobStoreBase.h"

#include <stdexcept>

#include "platform/Failure.h"
#include "platform/Trace.h"

namespace {

constexpr char kRefused[] = "Unable to free memory";

// Made while there is memory for its text, before all other static objects. Copies share the text.
__attribute__((init_priority(101)))
const Failure kNoMemory(FailureCode::Memory, "Unable to allocate memory");

TesselMemoryManager& Manager() {
  return *TesselMemoryManager::GetInstance(2048);
}

}  // namespace

BlobStoreBase::BlobStoreBase() : allocationTag(kAllocationTag) {}

BlobStoreBase::~BlobStoreBase() = default;

void* BlobStoreBase::operator new(std::size_t size) {
  return pooled::Acquire(size, TesselMemoryManager::kStorePool, kAllocationTag);
}

void BlobStoreBase::operator delete(void* p) noexcept(false) {
  if (p != nullptr && Manager().Free(p) < 0) throw std::runtime_error(kRefused);
}

void pooled::ThrowNoMemory() {
  throw Failure(kNoMemory);
}

void* pooled::Acquire(std::size_t size, unsigned pool, unsigned tag) {
  void* block = nullptr;
  Manager().Alloc(&block, size, pool, Vell::Common::System::OS::Memory::kLifeSpanDefault, tag);
  if (block == nullptr) ThrowNoMemory();
  return block;
}

void pooled::ReleaseOrTrace(void* p) noexcept {
  if (Manager().Free(p) < 0) trace::engine.WriteErrorV("%s", kRefused);
}
