// Digests of many messages at once, for a check or a load that has many blobs
// in memory: several times the speed of one message after the other.
#pragma once

#include <cstddef>
#include <cstdint>

struct MD5Message {
  const std::uint8_t* data;  // may be null if size is 0
  std::size_t size;          // bytes
  std::uint8_t* digest;      // gets 16 bytes
};

// Writes the digest of every message. Messages may differ in size and share
// their bytes; a digest must not lie in any message. The order does not matter
// to the result; long messages first keep more lanes busy. Takes what the
// processor has: vector lanes, or two messages at a time. Allocates nothing.
void DigestMany(const MD5Message* messages, std::size_t count);
