// Reads many blobs at once and verifies them side by side: a check and a
// repack read blobs that have nothing to do with one another, whose digests
// can be computed in parallel lanes.
//
// Add() collects what one buffer can hold, Verify() reads it, records that lie
// together in one call, and digests it. A blob that is not there as the index
// says, or does not match its hash, is merely not sound: what is wrong with it
// is for the careful path of BlobFile::GetBlob to find out and report.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "md5/MD5.h"
#include "pack/BlobFile.h"

class BatchReader {
 public:
  static constexpr std::size_t kMaxBlobs = 256;

  // For blobs of at most largestBlob bytes and totalSize in all. Throws
  // "Unable to allocate memory".
  BatchReader(std::uint32_t largestBlob, std::uint64_t totalSize, std::size_t count);

  // Starts the next batch.
  void Clear();

  // Notes the blob of an entry, whose file must stay. False when the batch is
  // full.
  bool Add(const Hash& hash, const BlobFile::BlobFileEntry& entry);

  // Reads and digests what was added.
  void Verify();

  std::size_t Count() const { return count; }
  bool IsSound(std::size_t i) const { return slots[i].sound; }
  // The blob's bytes, of its entry's size; what they are of one that is not
  // sound is undefined, and room for them is there all the same.
  unsigned char* Data(std::size_t i) { return buffer.data() + slots[i].data; }

 private:
  struct Slot {
    BlobFile* file;
    std::uint32_t offset;  // of the record in the file
    std::uint32_t size;    // of the blob
    Hash hash;
    std::size_t data;  // place of the blob's data in the buffer
    bool sound;

    std::uint64_t End() const { return std::uint64_t{offset} + format::kStoreHeadSize + size; }
  };

  void ReadAll();
  static void ReadRun(Slot* const* first, Slot* const* end, unsigned char* bytes);

  std::vector<unsigned char, BlobAllocator<unsigned char, TesselMemoryManager::kContainerPool, kTagBytes>> buffer;
  std::size_t used = 0;  // bytes of the records that were added
  std::size_t count = 0;
  std::array<Slot, kMaxBlobs> slots;
};
