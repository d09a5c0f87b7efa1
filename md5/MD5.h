// The MD5 message digest of RFC 1321 over bytes that arrive in pieces.
//
// An object accumulates from construction or init() until finalize(); from
// then on it ignores input and gives its digest. init() starts it afresh. A
// plain value: a copy goes on by itself from where the original stood.
// Errors: none of its own; what a stream throws passes through.
// No locks: one caller at a time. Lengths are bytes.
#pragma once

#include <cstdint>
#include <cstdio>
#include <iosfwd>
#include <string>

#include "platform/Export.h"

class BLOBRING_EXPORT MD5 {
 public:
  MD5();

  // The finished digest of everything from where the source stands to its
  // end. The FILE is closed, as update(FILE*) does; a stream stays open.
  explicit MD5(std::FILE* file);
  explicit MD5(std::istream& stream);
  explicit MD5(std::ifstream& stream);

  // Starts a new message. A digest already computed is no longer given out.
  void init();

  // Adds length bytes. Whole blocks are hashed where they lie; at most 63
  // bytes are copied. Ignored once finalized. input may be null if length is 0.
  void update(const std::uint8_t* input, std::uint32_t length);

  // Adds what is left of an open file, up to its end or its first read error,
  // and closes it: the FILE is the object's from the call on.
  void update(std::FILE* file);

  // Adds what a stream gives until it is no longer good(), and leaves it open.
  void update(std::istream& stream);
  void update(std::ifstream& stream);

  // Ends the message. A second call changes nothing.
  void finalize();

  // Copies the 16 bytes of the digest to out; writes nothing before finalize().
  void raw_digest(std::uint8_t* out) const;

  // The digest as text, empty before finalize(). Each byte is lower-case
  // hexadecimal without a leading zero, so the text has 16 to 32 characters
  // and is not the one that md5sum prints.
  void hex_digest(std::string& out) const;

 private:
  friend void UpdateBoth(MD5& first, const std::uint8_t* firstInput, std::uint32_t firstLength, MD5& second,
                         const std::uint8_t* secondInput, std::uint32_t secondLength);

  void AddToCount(std::uint32_t length);
  std::uint32_t BufferedSize() const { return (count[0] >> 3) & 63; }

  std::uint32_t state[4];   // A, B, C, D
  std::uint32_t count[2];   // bits of input modulo 2^64, low word first
  std::uint8_t buffer[64];  // input short of a block
  std::uint8_t digest[16];  // of use only once finalized
  bool finalized;
};

// Writes the text of hex_digest().
BLOBRING_EXPORT std::ostream& operator<<(std::ostream& os, MD5 md5);
