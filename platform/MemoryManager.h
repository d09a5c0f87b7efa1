// The platform's memory manager, as the store calls it. Every block names a numbered pool and a
// tag, so that the platform can account for it. Supplied at link time (see Win32.h).
#pragma once

namespace Vell::Common::System::OS::Memory {

enum LifeSpan : unsigned { kLifeSpanDefault = 1 };

class MemoryManager {
 public:
  // Stores the address of at least size bytes, aligned for any type, through out, or null when it
  // cannot. Only the stored pointer tells success.
  int Alloc(void** out, unsigned long size, unsigned long pool, LifeSpan lifeSpan,
            unsigned long tag);

  // Gives a block back. Negative when it refuses; the block then stays as it was.
  int Free(void* block);
};

class TesselMemoryManager : public MemoryManager {
 public:
  enum Pool : unsigned { kStorePool = 20, kContainerPool = 31 };

  // The process's memory manager; never null. The store passes 2048.
  static TesselMemoryManager* GetInstance(unsigned int kind);
};

}  // namespace Vell::Common::System::OS::Memory
