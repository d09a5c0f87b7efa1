// The bytes at the end of a file that a transaction has produced and that are
// still in memory: gathered so that small records cost no platform call each,
// and kept so that they can be digested later than they are produced.
//
// It covers the file from Start() to End(). Of these bytes a first part may
// have been written and a first part digested; emptying it, which Restart
// does, is for the owner to decide once both are complete. Its usual capacity
// is small enough to stay in the processor's caches; one large record may
// exceed it.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "fs/File.h"
#include "platform/BlobAllocator.h"

class GatherBuffer {
 public:
  static constexpr std::uint32_t kUsualCapacity = 128 * 1024;

  std::uint32_t Start() const { return start; }
  std::uint32_t End() const { return start + static_cast<std::uint32_t>(bytes.size()); }
  std::uint32_t WrittenEnd() const { return start + written; }

  // Empty, from offset on.
  void Restart(std::uint32_t offset);
  // Gives memory back: all of it, or what exceeds the usual capacity.
  void ReleaseAll();
  void ReleaseExcess();

  bool Fits(std::uint32_t size) const { return bytes.empty() || bytes.size() + size <= kUsualCapacity; }
  // Throws "Unable to allocate memory"; nothing is appended then. Obtain room
  // for both parts of a record before either is appended.
  void Reserve(std::uint32_t size);
  void Append(const unsigned char* data, std::uint32_t size);
  // Takes back all from offset on, which is not before Start().
  void Truncate(std::uint32_t offset);

  // Overwrites bytes that have not been written; false when some have.
  bool Patch(std::uint32_t offset, const unsigned char* data, std::uint32_t size);

  // Hands everything that is not written to the file, in one call.
  void WriteOut(File& file);

  // What Digested has not been told of yet.
  std::span<const unsigned char> Undigested() const { return {bytes.data() + digested, bytes.size() - digested}; }
  void Digested(std::size_t size) { digested += static_cast<std::uint32_t>(size); }

 private:
  std::vector<unsigned char, BlobAllocator<unsigned char, TesselMemoryManager::kContainerPool, kTagBytes>> bytes;
  std::uint32_t start = 0;
  std::uint32_t written = 0;
  std::uint32_t digested = 0;
};
