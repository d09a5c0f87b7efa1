// Reads a file front to back through one large buffer, which is taken from
// the store's pool when the first byte is wanted.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "fs/File.h"
#include "platform/BlobAllocator.h"

class FileScanner {
 public:
  // Scans from offset to end, which is the file's length.
  FileScanner(File& source, std::uint32_t offset, std::uint32_t end);

  std::uint32_t Offset() const { return position; }
  std::uint32_t Left() const { return length - position; }

  // The next bytes, at least one and at most max, valid until the next call.
  // Throws CutShort when max goes beyond the end and what is left was used
  // up, and what File throws.
  std::span<const unsigned char> Next(std::uint32_t max);

  // Exactly size bytes.
  void Read(unsigned char* bytes, std::uint32_t size);

  // For a look ahead, which leaves the position where it is.
  // Makes the buffer hold size bytes (at most 32 KiB) from the position on, or
  // all that are left.
  void Prefetch(std::uint32_t size);
  // What the buffer holds from offset on, maybe nothing. Valid until a call
  // that reads or prefetches.
  std::span<const unsigned char> Held(std::uint32_t offset) const;
  // Exactly size bytes from offset on, past the buffer if it does not hold them.
  void ReadAt(std::uint32_t offset, unsigned char* bytes, std::uint32_t size) const;
  // Moves on to offset, at most the end.
  void SkipTo(std::uint32_t offset) { position = offset; }

 private:
  void Fill(std::uint32_t wanted);

  File& file;
  std::uint32_t position;
  const std::uint32_t length;
  std::vector<unsigned char, BlobAllocator<unsigned char, TesselMemoryManager::kContainerPool, kTagBytes>> buffer;
  std::uint32_t bufferStart = 0;  // file offset of buffer[0]
  std::uint32_t buffered = 0;     // bytes in it
};
