// A blob in memory: its hash and a byte range that the caller owns.
#pragma once

#include <cstdint>

#include "fs/File.h"
#include "pack/Hash.h"
#include "platform/BlobStoreBase.h"

struct RawBuffer {
  unsigned char* data = nullptr;
  std::uint32_t size = 0;  // bytes
};

class BLOBRING_EXPORT BlobPair : private BlobStoreBase {
 public:
  BlobPair();
  ~BlobPair() override;

  // Whether the MD5 of the whole buffer is the hash. If not: a warning and, at trace levels from
  // 60000 on, a dump of the buffer.
  bool isValid() const;

  // Reads the blob body (hash, size, data) at the file's position. With skipData only the hash and
  // the size are taken, and the position moves past the data. Otherwise the data goes into the
  // buffer, which must hold it, and is checked: sizes that differ are reported, a buffer that is
  // too small makes it read the size again 5 times, 200 ms apart, and a buffer that is larger is
  // checked whole. Sets hash and, on success, buffer.size. Throws Failure; the file's position and
  // the buffer's bytes are then undefined.
  void Read(File& f, bool skipData);

  enum class Patience { Rereads, None };  // where the buffer is smaller than the stored size

  // The rest of Read, after hash and stored size are known, and what `data` has of the blob. That
  // may lie in the pair's buffer. Reads no byte twice, and leaves the position alone.
  void ReadData(const File& f, unsigned bodyOffset, std::uint32_t stored, const BytesRead& data,
                Patience patience);

  Hash hash;
  RawBuffer buffer;

 private:
  void RereadSize(const File& f, unsigned bodyOffset, std::uint32_t& stored) const;
};

// Writes the buffer as one line of hexadecimal digits to the raw trace device, at trace levels from
// 60000 on.
BLOBRING_EXPORT void DumpBlob(RawBuffer const* b);
