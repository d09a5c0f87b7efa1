// Reads the blob of a store record piece by piece, in memory that does not grow with the blob.
#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "md5/MD5.h"
#include "pack/BlobFile.h"
#include "pack/PieceCalls.h"

class PieceReader {
 public:
  // Reads `size` bytes that lie `at` bytes into the record, as BlobFile::ReadSome.
  using ReadAt = std::function<BlobFile::RecordBytes(std::uint32_t at, unsigned char* bytes,
                                                     std::uint32_t size)>;

  // Of a blob of `size` bytes. Throws "Unable to allocate memory".
  PieceReader(const Hash& blobHash, std::uint32_t size, ReadAt readAt);

  // The next bytes of the blob, at most kPieceSize, which remain valid until the next call; none at
  // the end. The last ones come only if the whole blob matches its hash. Throws Failure when it
  // does not, and when it cannot be read, and what ReadAt throws.
  std::span<const unsigned char> Next();

 private:
  const Hash hash;
  ReadAt read;
  std::uint32_t at = 0;    // in the record
  std::uint32_t headLeft;  // bytes of the record before the blob's
  std::uint32_t left;      // of the blob
  MD5 md5;
  PieceBuffer buffer;
};
