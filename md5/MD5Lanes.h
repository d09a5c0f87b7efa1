// Digests of many messages at once, for a check or a load that has many blobs
// in memory: several times the speed of one message after the other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// Gives the bytes of a message piece by piece, to whoever digests it.
class MD5Source {
 public:
  // The next bytes, which stay valid until the next call. Each piece but the
  // last is a multiple of 64 bytes; one that is not, or is empty, is the last.
  virtual std::span<const std::uint8_t> Next() = 0;

 protected:
  ~MD5Source() = default;
};

struct MD5Message {
  const std::uint8_t* data;   // may be null if size is 0
  std::size_t size;           // bytes
  std::uint8_t* digest;       // gets 16 bytes
  MD5Source* rest = nullptr;  // gives what follows them, if size is a multiple of 64; null: nothing does
};

// Writes the digest of every message. Messages may differ in size and share
// their bytes; a digest must not lie in any message. The order does not matter
// to the result; long messages first keep more lanes busy. Takes what the
// processor has: vector lanes, or two messages at a time. Allocates nothing.
// Of the sources no more than 16 are in use at a time, each from its first
// piece to its last; what one throws passes through, and then no digest counts.
void DigestMany(const MD5Message* messages, std::size_t count);
