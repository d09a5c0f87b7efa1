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
  FileWindow(File& source, std::uint32_t fileLength) : file(source), length(fileLength) {}

  std::uint64_t Length() const override { return length; }
  std::span<const unsigned char> Held(std::uint64_t offset) const override;
  std::span<const unsigned char> From(std::uint64_t offset, std::uint64_t least) override;
  void Read(std::uint64_t offset, unsigned char* to, std::size_t size) override;

 private:
  void ReadFile(std::uint64_t offset, unsigned char* to, std::size_t size);

  File& file;
  const std::uint32_t length;
  std::vector<unsigned char,
              BlobAllocator<unsigned char, TesselMemoryManager::kContainerPool, kTagBytes>>
      buffer;
  std::uint64_t start = 0;  // file offset of buffer[0]
  std::size_t held = 0;     // bytes in it
};
