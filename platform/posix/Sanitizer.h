// What AddressSanitizer has to know of memory that does not come from malloc:
// which of it nobody may touch, and where pointers may lie. Nothing in other
// builds.
#pragma once

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define BLOBRING_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define BLOBRING_ADDRESS_SANITIZER 1
#endif
#endif

#ifdef BLOBRING_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#include <sanitizer/lsan_interface.h>
#endif

namespace platform {

#ifdef BLOBRING_ADDRESS_SANITIZER
inline void Forbid(const void* start, std::size_t size) {
  __asan_poison_memory_region(start, size);
}
inline void Permit(const void* start, std::size_t size) {
  __asan_unpoison_memory_region(start, size);
}
inline void AnnounceMapping(const void* start, std::size_t size) {
  __lsan_register_root_region(start, size);
}
inline void RevokeMapping(const void* start, std::size_t size) {
  __lsan_unregister_root_region(start, size);
  Permit(start, size);
}
#else
inline void Forbid(const void* /*start*/, std::size_t /*size*/) {}
inline void Permit(const void* /*start*/, std::size_t /*size*/) {}
inline void AnnounceMapping(const void* /*start*/, std::size_t /*size*/) {}
inline void RevokeMapping(const void* /*start*/, std::size_t /*size*/) {}
#endif

}  // namespace platform
