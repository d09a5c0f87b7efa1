#include "pack/BatchReader.h"

#include <algorithm>
#include <cstring>
#include <functional>

#include "platform/BlobAllocator.h"

namespace {

// Sixteen records of 64 KiB, one for each lane. More would not stay in the caches between being
// read and being digested.
constexpr std::uint64_t kBufferSize = 16 * (64 + 4) * 1024;
// Bytes between two records that are read rather than skipped: a read costs about as much as
// copying 2 KiB.
constexpr std::size_t kMaxGap = 2048;

}  // namespace

BatchReader::BatchReader(std::uint32_t largestBlob, std::uint64_t totalSize,
                         std::size_t blobCount) {
  const std::uint64_t all = totalSize + std::uint64_t{format::kStoreHeadSize} * blobCount;
  const std::uint64_t one = std::uint64_t{format::kStoreHeadSize} + largestBlob;
  ResizeOrSmaller(buffer, static_cast<std::size_t>(std::min(all, kBufferSize)),
                  static_cast<std::size_t>(one));
}

void BatchReader::Clear() {
  used = 0;
  count = 0;
}

bool BatchReader::Add(const Hash& hash, const BlobFile::BlobFileEntry& entry) {
  const std::size_t recordSize = std::size_t{format::kStoreHeadSize} + entry.size;
  if (count == kMaxBlobs || recordSize > buffer.size() - used) return false;
  slots[count] = {entry.file.get(), entry.offset, entry.size, hash};
  used += recordSize;
  ++count;
  return true;
}

// In the order in which they lie in their files, which is not that of the batch. What lies between
// two records is read with them while it is short and the buffer has room for it.
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

// Reads records of one file that follow one another there. After one that cannot be read, those
// behind it are read by themselves.
void BatchReader::ReadRun(Slot* const* first, Slot* const* end, unsigned char* bytes) {
  BlobFile* const file = (*first)->file;
  const std::uint32_t start = (*first)->offset;
  while (first != end && file != nullptr) {
    const std::uint32_t from = (*first)->offset;
    BlobFile::RecordBytes read{};
    try {
      read = file->ReadSome(from, bytes + (from - start),
                            static_cast<std::uint32_t>(end[-1]->End() - from));
    } catch (const std::exception&) {
      (*first++)->failure = std::current_exception();
      continue;
    }
    // A read that stopped short of a record has not tried it.
    for (bool isWhole = true;
         first != end && isWhole && (*first)->offset - from <= read.held.size(); ++first) {
      Slot& slot = **first;
      const std::size_t at = slot.offset - from;
      slot.got = static_cast<std::uint32_t>(
          std::min<std::size_t>(slot.RecordSize(), read.held.size() - at));
      slot.code = read.code;
      isWhole = slot.got == slot.RecordSize();
    }
  }
}

bool BatchReader::LooksRight(const Slot& slot) const {
  if (slot.file == nullptr || slot.got != slot.RecordSize()) return false;
  const format::RecordHead head =
      format::RecordHead::Decode(buffer.data() + slot.data - format::kStoreHeadSize);
  return head.op.op == format::kOpStore && head.size == slot.size &&
         std::memcmp(head.hash, slot.hash.Bytes(), Hash::kSize) == 0;
}

void BatchReader::Verify() {
  ReadAll();
  std::array<MD5Message, kMaxBlobs> messages;
  std::array<unsigned char, kMaxBlobs * Hash::kSize> digests;
  std::array<Slot*, kMaxBlobs> digested;
  std::size_t n = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (!LooksRight(slots[i])) continue;
    digested[n] = &slots[i];
    messages[n] = {buffer.data() + slots[i].data, slots[i].size, digests.data() + Hash::kSize * n};
    ++n;
  }
  DigestMany(messages.data(), n);
  for (std::size_t i = 0; i < n; ++i)
    digested[i]->sound =
        std::memcmp(digests.data() + Hash::kSize * i, digested[i]->hash.Bytes(), Hash::kSize) == 0;
}

bool BatchReader::Take(std::size_t i, BlobPair& pair) {
  const Slot& slot = slots[i];
  if (slot.failure) std::rethrow_exception(slot.failure);
  if (slot.file == nullptr) throw Failure(FailureCode::Damaged, "the blob has no file");
  pair.hash = slot.hash;
  pair.buffer = {Data(i), slot.size};
  const BlobFile::RecordBytes record{
      {Data(i) - format::kStoreHeadSize, slot.got}, slot.RecordSize(), slot.code};
  if (!slot.file->TakeBlob(pair, slot.offset, record, BlobPair::Patience::Rereads)) return false;
  slot.file->RequireBlob(pair, slot.offset, slot.hash, slot.size);
  return true;
}
