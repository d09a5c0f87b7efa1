#include "store/BatchReader.h"

#include <algorithm>
#include <cstring>
#include <functional>

namespace {

// Sixteen records of 64 KiB, one for each lane. More would not stay in the
// caches between being read and being digested.
constexpr std::uint64_t kBufferSize = 16 * (64 + 4) * 1024;
// Bytes between two records that are read rather than skipped: a call takes as
// long as some 2 KiB more in it.
constexpr std::size_t kMaxGap = 2048;

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
  slots[count] = {entry.file.get(), entry.offset, entry.size, hash, 0, false};
  used += recordSize;
  ++count;
  return true;
}

// In the order in which they lie in their files, which is not that of the
// batch. What lies between two records is read with them while it is short
// and the buffer has room for it.
void BatchReader::ReadAll() {
  std::array<Slot*, kMaxBlobs> order;
  for (std::size_t i = 0; i < count; ++i) order[i] = &slots[i];
  std::sort(order.begin(), order.begin() + count, [](const Slot* a, const Slot* b) {
    return a->file != b->file ? std::less<>()(a->file, b->file) : a->offset < b->offset;
  });
  std::size_t spare = buffer.size() - used;
  std::size_t at = 0;
  for (std::size_t first = 0; first < count;) {
    const Slot& start = *order[first];
    std::uint64_t end = start.End();
    order[first]->data = at + format::kStoreHeadSize;
    std::size_t next = first + 1;
    for (; next < count && start.file != nullptr && order[next]->file == start.file; ++next) {
      Slot& slot = *order[next];
      if (slot.offset < end || slot.offset - end > std::min(kMaxGap, spare)) break;
      spare -= static_cast<std::size_t>(slot.offset - end);
      slot.data = at + (slot.offset - start.offset) + format::kStoreHeadSize;
      end = slot.End();
    }
    ReadRun(&order[first], &order[next], buffer.data() + at);
    at += static_cast<std::size_t>(end - start.offset);
    first = next;
  }
}

// Reads records of one file that follow one another there. Where that fails,
// each is tried by itself: the one that cannot be read must not hide others.
void BatchReader::ReadRun(Slot* const* first, Slot* const* end, unsigned char* bytes) {
  BlobFile* file = (*first)->file;
  if (file == nullptr) return;
  const std::uint32_t offset = (*first)->offset;
  const bool isRead =
      end - first > 1 && file->ReadBytes(offset, bytes, static_cast<std::uint32_t>(end[-1]->End() - offset));
  for (; first != end; ++first) {
    Slot& slot = **first;
    unsigned char* record = bytes + (slot.offset - offset);
    slot.sound = (isRead || file->ReadBytes(slot.offset, record, format::kStoreHeadSize + slot.size)) &&
                 BlobFile::IsStoreRecord(record, slot.hash, slot.size);
  }
}

void BatchReader::Verify() {
  ReadAll();
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
