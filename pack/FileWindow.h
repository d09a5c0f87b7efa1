// A window of a file in memory, for reading it front to back and peeking ahead. The buffer is taken
// from the store's pool when the first byte is wanted.
//
// Offsets are the file's. Throws CutShort (Replay.h) for bytes past the end, what File throws, and
// Failure when not even 4096 bytes of memory can be had.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "fs/File.h"
#include "platform/BlobAllocator.h"

class FileWindow {
 public:
  FileWindow(File& source, std::uint32_t fileLength) : file(source), length(fileLength) {}

  // What the window holds from offset on, possibly nothing. Valid until the window moves.
  std::span<const unsigned char> Held(std::uint32_t offset) const;

  // The same, but moves the window if it must to return at least `least` bytes, or as many as it
  // can hold (4096 or more), or all up to the end of the file.
  std::span<const unsigned char> From(std::uint32_t offset, std::uint32_t least);

  // Exactly size bytes (at most 4096). Read moves the window, Peek does not.
  const unsigned char* Read(std::uint32_t offset, std::uint32_t size);
  void Peek(std::uint32_t offset, unsigned char* bytes, std::uint32_t size) const;

  // Reads past the window, into the caller's memory.
  void ReadPast(std::uint32_t offset, unsigned char* bytes, std::uint32_t size) const;

 private:
  void RequireThere(std::uint32_t offset, std::uint32_t size) const;

  File& file;
  const std::uint32_t length;
  std::vector<unsigned char,
              BlobAllocator<unsigned char, TesselMemoryManager::kContainerPool, kTagBytes>>
      buffer;
  std::uint32_t start = 0;  // file offset of buffer[0]
  std::uint32_t held = 0;   // bytes in it
};
