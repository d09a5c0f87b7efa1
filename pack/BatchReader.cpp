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
  const std::uint64_t all = totalSize + std::uint64_t{format::kStoreHeaderSize} * blobCount;
  const std::uint64_t one = std::uint64_t{format::kStoreHeaderSize} + largestBlob;
  ResizeOrSmaller(buffer, static_cast<std::size_t>(std::min(all, kBufferSize)),
                  static_cast<std::size_t>(one));
}

void BatchReader::Clear() {
  used = 0;
  count = 0;
}

bool BatchReader::Add(const Hash& hash, const BlobFile::BlobFileEntry& entry) {
  const std::size_t recordSize = std::size_t{format::kStoreHeaderSize} + entry.size;
  if (count == kMaxBlobs || recordSize > buffer.size() - used) return false;
  items[count] = {entry.file.get(), entry.offset, entry.size, hash};
  used += recordSize;
  ++count;
  return true;
}

// In the order in which they lie in their files, which is not that of the batch. What lies between
// two records is read with them while it is short and the buffer has room for it.
void BatchReader::Read() {
  std::array<Item*, kMaxBlobs> order;
  for (std::size_t i = 0; i < count; ++i) order[i] = &items[i];
  std::sort(order.begin(), order.begin() + count, [](const Item* a, const Item* b) {
    return a->file != b->file ? std::less<>()(a->file, b->file) : a->offset < b->offset;
  });
  std::size_t spare = buffer.size() - used;
  std::size_t at = 0;
  for (std::size_t first = 0; first < count;) {
    const Item& start = *order[first];
    std::uint64_t end = start.End();
    order[first]->data = at + format::kStoreHeaderSize;
    std::size_t next = first + 1;
    for (; next < count && start.file != nullptr && order[next]->file == start.file; ++next) {
      Item& item = *order[next];
      if (item.offset < end || item.offset - end > std::min(kMaxGap, spare)) break;
      spare -= static_cast<std::size_t>(item.offset - end);
      item.data = at + (item.offset - start.offset) + format::kStoreHeaderSize;
      end = item.End();
    }
    ReadRun(&order[first], &order[next], buffer.data() + at);
    at += static_cast<std::size_t>(end - start.offset);
    first = next;
  }
}

// Reads records of one file that follow one another there. After one that cannot be read, those
// behind it are read by themselves.
void BatchReader::ReadRun(Item* const* first, Item* const* end, unsigned char* bytes) {
  BlobFile* const file = (*first)->file;
  const std::uint32_t start = (*first)->offset;
  while (first != end && file != nullptr) {
    const std::uint32_t from = (*first)->offset;
    BytesRead read{};
    try {
      read = file->file.readSome(from, bytes + (from - start),
                                 static_cast<std::uint32_t>(end[-1]->End() - from));
    } catch (const std::exception&) {
      (*first++)->failure = std::current_exception();
      continue;
    }
    // Records past a short read were not tried; the outer loop reads them next.
    for (bool isWhole = true;
         first != end && isWhole && (*first)->offset - from <= read.held.size(); ++first) {
      Item& item = **first;
      const std::size_t at = item.offset - from;
      item.got = static_cast<std::uint32_t>(
          std::min<std::size_t>(item.RecordSize(), read.held.size() - at));
      item.code = read.code;
      isWhole = item.got == item.RecordSize();
    }
  }
}

bool BatchReader::LooksRight(const Item& item) const {
  return item.file != nullptr && item.got == item.RecordSize() &&
         format::RecordHeader::IsOf(buffer.data() + item.data - format::kStoreHeaderSize,
                                    item.hash.Bytes(), item.size);
}

void BatchReader::Verify() {
  std::array<MD5Message, kMaxBlobs> messages;
  std::array<unsigned char, kMaxBlobs * Hash::kSize> digests;
  std::array<Item*, kMaxBlobs> digested;
  std::size_t n = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (!LooksRight(items[i])) continue;
    digested[n] = &items[i];
    messages[n] = {buffer.data() + items[i].data, items[i].size, digests.data() + Hash::kSize * n};
    ++n;
  }
  DigestMany(messages.data(), n);
  for (std::size_t i = 0; i < n; ++i)
    digested[i]->sound =
        std::memcmp(digests.data() + Hash::kSize * i, digested[i]->hash.Bytes(), Hash::kSize) == 0;
}

bool BatchReader::Decode(std::size_t i, BlobPair& pair) {
  const Item& item = items[i];
  if (item.failure) std::rethrow_exception(item.failure);
  if (item.file == nullptr) throw Failure(FailureCode::Damaged, "the blob has no file");
  pair.hash = item.hash;
  pair.buffer = {Data(i), item.size};
  const BytesRead record{
      {Data(i) - format::kStoreHeaderSize, item.got}, item.RecordSize(), item.code};
  if (!item.file->DecodeBlob(pair, item.offset, record, BlobPair::Patience::Rereads)) return false;
  item.file->RequireBlob(pair, item.offset, item.hash, item.size);
  return true;
}
