// The last bytes of an open transaction, held in memory so that small records need no platform call
// each and can be digested later.
//
// Covers the file from Start() to End(). A first part of these bytes may have been written, and a
// first part digested. The owner empties it with Restart once both are complete. The usual capacity
// fits the processor's caches; one large record may exceed it.
#pragma once

#include <cstdint>
#include <span>

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

  bool Fits(std::uint32_t size) const {
    return bytes.empty() || bytes.size() + size <= kUsualCapacity;
  }
  // Throws "Unable to allocate memory"; nothing is appended then. Obtain room for both parts of a
  // record before either is appended.
  void Reserve(std::uint32_t size);
  void Append(const unsigned char* data, std::uint32_t size);
  // Drops all from offset on, which is not before Start().
  void Truncate(std::uint32_t offset);

  // Overwrites bytes. False, and nothing is changed, if some of them have been written.
  bool Patch(std::uint32_t offset, const unsigned char* data, std::uint32_t size);

  // The bytes not yet written; Written marks them all as written.
  std::span<const unsigned char> Unwritten() const {
    return {bytes.data() + written, bytes.size() - written};
  }
  void Written() { written = static_cast<std::uint32_t>(bytes.size()); }

  // The bytes not yet digested; Digested marks the first `size` of them.
  std::span<const unsigned char> Undigested() const {
    return {bytes.data() + digested, bytes.size() - digested};
  }
  void Digested(std::size_t size) { digested += static_cast<std::uint32_t>(size); }

 private:
  PooledBytes bytes;
  std::uint32_t start = 0;
  std::uint32_t written = 0;
  std::uint32_t digested = 0;
};
