// A window of a store's file in memory, of up to 256 KiB. The buffer is taken from the store's pool
// when the first byte is wanted; one that the memory manager refuses is tried again smaller, down
// to 4096 bytes.
//
// Throws what File throws, and Failure when not even that much memory can be had.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "fs/File.h"
#include "pack/format/ByteSource.h"
#include "platform/BlobAllocator.h"

class FileWindow final : public format::ByteSource {
 public:
  FileWindow(File& source, std::uint32_t fileLength) : ByteSource(fileLength), file(source) {}

 private:
  std::span<unsigned char> Allocate(std::size_t size) override;
  void ReadFile(std::uint64_t offset, unsigned char* to, std::size_t size) override;

  File& file;
  std::vector<unsigned char,
              BlobAllocator<unsigned char, TesselMemoryManager::kContainerPool, kTagBytes>>
      buffer;
};
