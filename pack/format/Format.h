// The bytes of a pack or journal file: what its writer and its readers share. docs/format.md shows
// them as tables. All integers are little-endian, whatever the host; padding is written as zeros
// and never looked at.
#pragma once

#include <cstdint>
#include <cstring>

namespace format {

constexpr std::uint32_t kFileHeaderSize = 24;
constexpr std::uint32_t kOpHeaderSize = 16;
constexpr std::uint32_t kBlockSize = 24;
constexpr std::uint32_t kHashSize = 16;
constexpr std::uint32_t kDigestSize = 16;
constexpr std::uint32_t kBodyHeadSize = kHashSize + 4;
constexpr std::uint32_t kStoreHeaderSize = kOpHeaderSize + kBodyHeadSize;  // the data follows
constexpr std::uint32_t kDeleteSize = kOpHeaderSize + kHashSize;
constexpr std::uint32_t kStartSize = kOpHeaderSize + kBlockSize;
constexpr std::uint32_t kEndSize = kOpHeaderSize;
constexpr std::uint32_t kLeastTransaction = kStartSize + kDeleteSize + kEndSize;

// After this many commits, a journal makes this many bytes of blank space ahead of itself, where
// transactions of up to this many records take one flush.
constexpr std::uint32_t kCommitsBeforeBlank = 32;
constexpr std::uint32_t kBlankAhead = 64 * 1024;
constexpr std::uint32_t kMostRecordsInBlank = 10;

// Positions are signed 32 bits at the platform.
constexpr std::uint32_t kMaxFileSize = 0x7FFFFFFF;

constexpr std::uint32_t kInitialMaxBlobSize = 1024;
constexpr std::uint32_t kVersion = 1;
constexpr std::int32_t kSequenceReset = -1;  // of a pack that was emptied and not yet written

enum Op : std::int32_t {
  kOpStore = 0,
  kOpDelete = 1,
  kOpStartTransaction = 2,
  kOpEndTransaction = 3
};

inline void Put32(unsigned char* out, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<unsigned char>(value >> (8 * i));
}
inline std::uint32_t Get32(const unsigned char* in) {
  return std::uint32_t{in[0]} | std::uint32_t{in[1]} << 8 | std::uint32_t{in[2]} << 16 |
         std::uint32_t{in[3]} << 24;
}
inline void Put64(unsigned char* out, std::uint64_t value) {
  Put32(out, static_cast<std::uint32_t>(value));
  Put32(out + 4, static_cast<std::uint32_t>(value >> 32));
}
inline std::uint64_t Get64(const unsigned char* in) {
  return Get32(in) | std::uint64_t{Get32(in + 4)} << 32;
}

// What stands before every record.
struct OpHeader {
  std::int32_t op;
  std::int64_t transactionId;

  void Encode(unsigned char* out) const {
    Put32(out, static_cast<std::uint32_t>(op));
    Put32(out + 4, 0);
    Put64(out + 8, static_cast<std::uint64_t>(transactionId));
  }
  static OpHeader Decode(const unsigned char* in) {
    return {static_cast<std::int32_t>(Get32(in)), static_cast<std::int64_t>(Get64(in + 8))};
  }
};

// The header of a store record: all but the data, which follows. A delete record is the same
// without the size. The hash is the raw 16 bytes.
struct RecordHeader {
  OpHeader op{};
  unsigned char hash[kHashSize] = {};
  std::uint32_t size = 0;

  // Returns the bytes written: kStoreHeaderSize or kDeleteSize.
  std::uint32_t Encode(unsigned char* out) const {
    op.Encode(out);
    std::memcpy(out + kOpHeaderSize, hash, kHashSize);
    if (op.op != kOpStore) return kDeleteSize;
    Put32(out + kDeleteSize, size);
    return kStoreHeaderSize;
  }
  static RecordHeader Decode(const unsigned char* in) {
    RecordHeader header{OpHeader::Decode(in), {}, 0};
    std::memcpy(header.hash, in + kOpHeaderSize, kHashSize);
    if (header.op.op == kOpStore) header.size = Get32(in + kDeleteSize);
    return header;
  }
  // Whether these kStoreHeaderSize bytes are that of a blob.
  static bool IsOf(const unsigned char* in, const unsigned char* blobHash, std::uint32_t blobSize) {
    const RecordHeader header = Decode(in);
    return header.op.op == kOpStore && header.size == blobSize &&
           std::memcmp(header.hash, blobHash, kHashSize) == 0;
  }
};

// The header of a file. Rewriting it is what commits.
struct FileHeader {
  std::uint32_t maxBlobSize = kInitialMaxBlobSize;
  std::uint32_t recordCount = 0;
  std::uint32_t mode = 0;
  std::int32_t sequence = 0;
  std::uint32_t version = kVersion;
  std::uint32_t endOffset = 0;

  void Encode(unsigned char* out) const {
    Put32(out, maxBlobSize);
    Put32(out + 4, recordCount);
    Put32(out + 8, mode);
    Put32(out + 12, static_cast<std::uint32_t>(sequence));
    Put32(out + 16, version);
    Put32(out + 20, endOffset);
  }
  static FileHeader Decode(const unsigned char* in) {
    return {Get32(in),      Get32(in + 4), Get32(in + 8), static_cast<std::int32_t>(Get32(in + 12)),
            Get32(in + 16), Get32(in + 20)};
  }
};

// Follows a start record's op header; zeros until the transaction ends.
struct TransactionBlock {
  std::uint32_t maxBlobSize = 0;
  std::uint32_t length = 0;  // bytes from the block's end to the end record
  unsigned char digest[kDigestSize] = {};

  void Encode(unsigned char* out) const {
    Put32(out, maxBlobSize);
    Put32(out + 4, length);
    for (std::uint32_t i = 0; i < kDigestSize; ++i) out[8 + i] = digest[i];
  }
  static TransactionBlock Decode(const unsigned char* in) {
    TransactionBlock block{Get32(in), Get32(in + 4), {}};
    for (std::uint32_t i = 0; i < kDigestSize; ++i) block.digest[i] = in[8 + i];
    return block;
  }
};

// Begins a transaction.
struct StartRecord {
  OpHeader start{};
  TransactionBlock block{};

  void Encode(unsigned char* out) const {
    start.Encode(out);
    block.Encode(out + kOpHeaderSize);
  }
  static StartRecord Decode(const unsigned char* in) {
    return {OpHeader::Decode(in), TransactionBlock::Decode(in + kOpHeaderSize)};
  }
};

}  // namespace format
