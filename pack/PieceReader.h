// Reads the blob of a store record piece by piece, in memory that does not grow with the blob.
#pragma once

#include <cstdint>
#include <span>

#include "md5/MD5.h"
#include "pack/BlobFile.h"
#include "pack/PieceCalls.h"

class PieceReader {
 public:
  // The file must outlive this. Throws "Unable to allocate memory".
  PieceReader(BlobFile& source, const BlobFile::BlobFileEntry& entry);

  // The next bytes of the blob, at most kPieceSize, which remain valid until the next call; none at
  // the end. The last ones come only if the whole blob matches its hash. Throws Failure when it
  // does not, and when it cannot be read.
  std::span<const unsigned char> Next();

 private:
  BlobFile& file;
  const Hash hash;
  std::uint32_t at;        // in the file
  std::uint32_t headLeft;  // bytes of the record before the blob's
  std::uint32_t left;      // of the blob
  MD5 md5;
  PieceBuffer buffer;
};
