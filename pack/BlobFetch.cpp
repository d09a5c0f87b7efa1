// BlobFile: reading one blob, the quick way and the careful one.
#include <cstring>
#include <stdexcept>

#include "pack/BlobFile.h"
#include "platform/Trace.h"

using format::OpHeader;

namespace {

char* Chars(unsigned char* bytes) {
  return reinterpret_cast<char*>(bytes);
}

// The largest blob that is read together with its record's head and then
// copied, from a buffer on the stack.
constexpr std::uint32_t kMaxSmallBlob = 4096;

bool HasDigest(const unsigned char* data, std::uint32_t size, const Hash& hash) {
  MD5 digest;
  digest.update(data, size);
  digest.finalize();
  unsigned char raw[Hash::kSize];
  digest.raw_digest(raw);
  return std::memcmp(raw, hash.Bytes(), sizeof raw) == 0;
}

}  // namespace

bool BlobFile::GetBlob(BlobPair& blob, unsigned int offset) {
  const Hash wanted = blob.hash;
  if (offset >= gather.WrittenEnd()) gather.WriteOut(file);
  const unsigned reached = file.seek(offset);
  if (reached != offset) {
    trace::pack.WriteErrorV("BlobFile::GetBlob() unable to seek to blob filename=%s offset=%d filepos=%d hash=%s",
                            path.c_str(), static_cast<int>(offset), static_cast<int>(reached),
                            wanted.toString().c_str());
    return false;
  }
  unsigned char bytes[format::kOpHeaderSize];
  file.read(Chars(bytes), sizeof bytes);
  const std::int32_t op = OpHeader::Decode(bytes).op;
  if (op != format::kOpStore) {
    trace::pack.WriteErrorV("BlobFile::GetBlob() unable to read blob filename=%s offset=%d hash=%s op=%d", path.c_str(),
                            static_cast<int>(offset), wanted.toString().c_str(), op);
    return false;
  }
  blob.Read(file, false);
  if (blob.hash == wanted) return true;
  // Sound, but of another hash: the record is not the one that was indexed.
  const std::string found = blob.hash.toString();
  blob.hash = wanted;
  throw std::runtime_error("BlobFile::GetBlob() " + path + " at " + std::to_string(offset) + ": wanted hash " +
                           wanted.toString() + ", got " + found);
}

bool BlobFile::IsStoreRecord(const unsigned char* record, const Hash& hash, std::uint32_t size) {
  return OpHeader::Decode(record).op == format::kOpStore &&
         std::memcmp(record + format::kOpHeaderSize, hash.Bytes(), format::kHashSize) == 0 &&
         format::Get32(record + format::kDeleteSize) == size;
}

bool BlobFile::ReadBytes(std::uint32_t offset, unsigned char* bytes, std::uint32_t size) {
  try {
    if (offset + size > gather.WrittenEnd()) gather.WriteOut(file);
    file.seek(offset);
    file.read(Chars(bytes), size);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

bool BlobFile::GetBlobQuickly(BlobPair& blob, unsigned int offset) {
  const std::uint32_t size = blob.buffer.size;
  if (size <= kMaxSmallBlob) {
    unsigned char record[format::kStoreHeadSize + kMaxSmallBlob];
    const unsigned char* data = record + format::kStoreHeadSize;
    if (!ReadBytes(offset, record, format::kStoreHeadSize + size) || !IsStoreRecord(record, blob.hash, size) ||
        !HasDigest(data, size, blob.hash))
      return false;
    if (size > 0) std::memcpy(blob.buffer.data, data, size);
    return true;
  }
  unsigned char head[format::kStoreHeadSize];
  if (!ReadBytes(offset, head, sizeof head) || !IsStoreRecord(head, blob.hash, size) ||
      !ReadBytes(offset + format::kStoreHeadSize, blob.buffer.data, size))
    return false;
  return HasDigest(blob.buffer.data, size, blob.hash);
}
