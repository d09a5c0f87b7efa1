// The MD5 message digest of RFC 1321: of one message that arrives in pieces, of two at once, and of
// many at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iosfwd>
#include <span>
#include <string>

#include "platform/Export.h"

// One digest. An object accumulates input until finalize(); after that it ignores input and returns
// its digest. init() starts a new message. A plain value: a copy continues independently of the
// original.
// Errors: none of its own. Exceptions of a stream pass through.
// Threads: one caller at a time for each object. Lengths are bytes.
class BLOBRING_EXPORT MD5 {
 public:
  MD5();

  // The finished digest of everything from the current position to the end. The FILE is closed, as
  // update(FILE*) does; a stream stays open.
  explicit MD5(std::FILE* file);
  explicit MD5(std::istream& stream);
  explicit MD5(std::ifstream& stream);

  // Starts a new message. The digest of the last one is no longer available.
  void init();

  // Adds length bytes. Whole blocks are hashed in place; at most 63 bytes are copied. Ignored after
  // finalize(). input may be null if length is 0.
  void update(const std::uint8_t* input, std::uint32_t length);

  // Adds the rest of an open file, up to its end or its first read error, and closes it. The caller
  // must not use the FILE again.
  void update(std::FILE* file);

  // Adds what the stream returns until it is no longer good().
  void update(std::istream& stream);
  void update(std::ifstream& stream);

  // Ends the message. A second call has no effect.
  void finalize();

  // Copies the 16 bytes of the digest to out. Before finalize(): does nothing.
  void raw_digest(std::uint8_t* out);

  // Sets out to the digest as text, 16 to 32 characters; before finalize() to the empty string.
  // Each byte is lower-case hexadecimal without a leading zero, so this is not the text that md5sum
  // prints.
  void hex_digest(std::string& out);

 private:
  friend void UpdateBoth(MD5& first, const std::uint8_t* firstInput, std::uint32_t firstLength,
                         MD5& second, const std::uint8_t* secondInput, std::uint32_t secondLength);

  void AddToCount(std::uint32_t length);
  std::uint32_t BufferedSize() const { return (count[0] >> 3) & 63; }

  std::uint32_t state[4];   // A, B, C, D
  std::uint32_t count[2];   // bits of input modulo 2^64, low word first
  std::uint8_t buffer[64];  // input that does not fill a block yet
  std::uint8_t digest[16];  // valid once finalized
  bool finalized;
};

// Writes the text of hex_digest().
BLOBRING_EXPORT std::ostream& operator<<(std::ostream& os, MD5 md5);

// Same result as first.update(firstInput, firstLength) and second.update(secondInput,
// secondLength), in about half the time while both have whole blocks left. The inputs may overlap.
// REQUIRES: first and second are different objects.
void UpdateBoth(MD5& first, const std::uint8_t* firstInput, std::uint32_t firstLength, MD5& second,
                const std::uint8_t* secondInput, std::uint32_t secondLength);

// Supplies a message piece by piece.
class MD5Source {
 public:
  // The next piece, which must remain valid until the next call. A piece that is empty, or whose
  // size is no multiple of 64, is the last one. May throw.
  virtual std::span<const std::uint8_t> Next() = 0;

 protected:
  ~MD5Source() = default;
};

struct MD5Message {
  const std::uint8_t* data;  // may be null if size is 0
  std::size_t size;          // bytes at data
  std::uint8_t* digest;      // receives 16 bytes
  // The bytes after data; null: none. REQUIRES: size is a multiple of 64.
  MD5Source* rest = nullptr;
};

// Writes the digest of every message, several at a time: in vector lanes where the processor has
// AVX2, else two at a time. Long messages first use the lanes best. Allocates nothing. At most 16
// sources are in use at a time.
// Errors: exceptions of a source pass through; all digests are then undefined.
// REQUIRES: no digest overlaps a message.
void DigestMany(const MD5Message* messages, std::size_t count);
