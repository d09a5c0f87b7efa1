// Reads many blobs at once and digests them side by side, for a check and a repack.
//
// Add() collects what one buffer can hold. Read() reads it, adjacent records in one call. Verify()
// digests it, without messages and without the files. Decode() judges the bytes of a blob that did
// not verify as BlobFile::GetBlob would, with its messages and exceptions. Each record is read
// once.
#pragma once

#include <array>
#include <cstdint>
#include <exception>

#include "md5/MD5.h"
#include "pack/BlobFile.h"

class BatchReader {
 public:
  static constexpr std::size_t kMaxBlobs = 256;

  // For blobs of at most largestBlob bytes each and totalSize bytes in all. If memory is short, the
  // buffer holds only the largest blob. Throws Failure("Unable to allocate memory").
  BatchReader(std::uint32_t largestBlob, std::uint64_t totalSize, std::size_t count);

  // Starts the next batch.
  void Clear();

  // Notes the blob of an entry. Its file must stay until Read, and for Decode. False when the batch
  // is full.
  bool Add(const Hash& hash, const BlobFile::BlobFileEntry& entry);

  void Read();
  void Verify();

  std::size_t Count() const { return count; }
  bool IsSound(std::size_t i) const { return items[i].sound; }
  std::uint32_t SizeOf(std::size_t i) const { return items[i].size; }
  const Hash& HashOf(std::size_t i) const { return items[i].hash; }
  // Whether an entry still says where the blob was read.
  bool IsAt(std::size_t i, const BlobFile::BlobFileEntry& entry) const {
    return items[i].file == entry.file.get() && items[i].offset == entry.offset;
  }
  // The blob's bytes, of its entry's size; undefined if it is not sound.
  unsigned char* Data(std::size_t i) { return buffer.data() + items[i].data; }

  // As BlobFile::GetBlob, for a blob that is not sound. The pair's buffer becomes Data(i). Throws
  // also if the record is that of another blob.
  bool Decode(std::size_t i, BlobPair& pair);

 private:
  struct Item {
    BlobFile* file;
    std::uint32_t offset;  // of the record in the file
    std::uint32_t size;    // of the blob
    Hash hash;
    std::size_t data = format::kStoreHeaderSize;  // place of the blob's data in the buffer
    std::uint32_t got = 0;                        // bytes of the record that were read
    std::uint32_t code = 0;                       // the platform's, where that is not all
    std::exception_ptr failure = nullptr;         // where not even that is known
    bool sound = false;

    std::uint32_t RecordSize() const { return format::kStoreHeaderSize + size; }
    std::uint64_t End() const { return std::uint64_t{offset} + RecordSize(); }
  };

  static void ReadRun(Item* const* first, Item* const* end, unsigned char* bytes);
  bool LooksRight(const Item& item) const;

  PooledBytes buffer;
  std::size_t used = 0;  // bytes of the records that were added
  std::size_t count = 0;
  std::array<Item, kMaxBlobs> items;
};
