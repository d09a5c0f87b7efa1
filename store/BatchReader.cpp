#include "store/BatchReader.h"

#include <algorithm>
#include <cstring>

namespace {

// Enough to keep all lanes busy with blobs of 64 KiB.
constexpr std::uint64_t kBufferSize = 4 * 1024 * 1024;

}  // namespace

BatchReader::BatchReader(std::uint32_t largestBlob, std::uint64_t totalSize, std::size_t blobCount) {
  const std::uint64_t all = totalSize + std::uint64_t{format::kStoreHeadSize} * blobCount;
  const std::uint64_t one = std::uint64_t{format::kStoreHeadSize} + largestBlob;
  buffer.resize(static_cast<std::size_t>(std::max(one, std::min(all, kBufferSize))));
}

void BatchReader::Clear() {
  used = 0;
  count = 0;
}

bool BatchReader::Add(const Hash& hash, const BlobFile::BlobFileEntry& entry) {
  const std::size_t recordSize = std::size_t{format::kStoreHeadSize} + entry.size;
  if (count == kMaxBlobs || recordSize > buffer.size() - used) return false;
  Slot& slot = slots[count];
  slot = {used + format::kStoreHeadSize, hash, entry.size, false};
  slot.sound = entry.file && entry.file->ReadRecord(hash, entry.offset, entry.size, buffer.data() + used);
  used += recordSize;
  ++count;
  return true;
}

void BatchReader::Verify() {
  std::array<MD5Message, kMaxBlobs> messages;
  std::array<unsigned char, kMaxBlobs * Hash::kSize> digests;
  std::size_t n = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (!slots[i].sound) continue;
    messages[n] = {buffer.data() + slots[i].data, slots[i].size, digests.data() + Hash::kSize * n};
    ++n;
  }
  DigestMany(messages.data(), n);
  n = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (!slots[i].sound) continue;
    slots[i].sound = std::memcmp(digests.data() + Hash::kSize * n, slots[i].hash.Bytes(), Hash::kSize) == 0;
    ++n;
  }
}
