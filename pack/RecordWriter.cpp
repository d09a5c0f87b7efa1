#include "pack/RecordWriter.h"

#include <algorithm>
#include <cstring>

#include "md5/MD5.h"
#include "pack/Hash.h"

using format::FileHeader;
using format::OpHeader;
using format::TransactionBlock;

namespace {

constexpr std::uint32_t kLeastBlank = format::kBlankAhead / 2;  // less than this is refilled

}  // namespace

RecordWriter::RecordWriter(File& target, FileHeader& fileHeader, TransactionBlock& transactionBlock,
                           std::uint32_t& transactionBlockOffset, MD5& transactionDigest)
    : file(target),
      header(fileHeader),
      block(transactionBlock),
      blockOffset(transactionBlockOffset),
      md5(transactionDigest) {}

void RecordWriter::Restart(bool forJournal) {
  isJournal = forJournal;
  gather.Restart(header.endOffset);
  blankBegin = blankEnd = zerosEnd = 0;
  beganInBlank = false;
  commitCount = 0;
  hasMadeBlank = false;
  mayMakeBlank = true;
}

void RecordWriter::Write(std::uint32_t offset, const unsigned char* bytes, std::uint32_t size) {
  blankBegin = std::max(blankBegin, offset + size);  // [C3], whatever comes of it
  try {
    file.seek(offset);
    file.write(reinterpret_cast<char*>(const_cast<unsigned char*>(bytes)), size);
  } catch (...) {
    beganInBlank = false;
    throw;
  }
}

void RecordWriter::WriteOut() {
  const std::span<const unsigned char> rest = gather.Unwritten();
  if (rest.empty()) return;
  Write(gather.WrittenEnd(), rest.data(), static_cast<std::uint32_t>(rest.size()));
  gather.Written();
}

void RecordWriter::Begin(long long id) {
  unsigned char record[format::kStartSize] = {};
  OpHeader{format::kOpStartTransaction, id}.Encode(record);
  gather.Restart(header.endOffset);
  gather.Reserve(sizeof record);
  gather.Append(record, sizeof record);
  gather.Digested(sizeof record);
  beganInBlank = header.endOffset >= blankBegin;
  countBefore = header.recordCount;

  block = TransactionBlock{};
  blockOffset = header.endOffset + format::kOpHeaderSize;
  header.endOffset += format::kStartSize;
  header.recordCount += 1;
  md5.init();
}

void RecordWriter::Append(const format::RecordHeader& record, unsigned char* data,
                          std::uint32_t mostGathered) {
  unsigned char head[format::kStoreHeaderSize];
  const std::uint32_t headSize = record.Encode(head);
  const std::uint32_t dataSize = record.size;
  if (gather.End() != header.endOffset) gather.Restart(header.endOffset);  // outside a transaction
  if (dataSize <= mostGathered) {
    if (!gather.Fits(headSize + dataSize)) EmptyGathered();
    gather.Reserve(headSize + dataSize);
    gather.Append(head, headSize);
    gather.Append(data, dataSize);
  } else {
    if (!gather.Fits(headSize)) EmptyGathered();
    gather.Reserve(headSize);
    gather.Append(head, headSize);
    try {
      WriteOut();
      Write(gather.End(), data, dataSize);
    } catch (...) {
      gather.Truncate(header.endOffset);
      throw;
    }
    DigestGathered();
    md5.update(data, dataSize);
    gather.Restart(gather.End() + dataSize);
  }
  header.endOffset += headSize + dataSize;
  header.recordCount += 1;
}

void RecordWriter::AppendFrom(const format::RecordHeader& record, PieceSource& source,
                              std::span<unsigned char> buffer) {
  EmptyGathered();
  try {
    md5 = WriteFrom(record, source, buffer);
  } catch (...) {
    CutOff();
    throw;
  }
  header.endOffset += format::kStoreHeaderSize + record.size;
  header.recordCount += 1;
  gather.Restart(header.endOffset);
}

// Returns the transaction's digest with the record, whose data is digested for both in one pass.
MD5 RecordWriter::WriteFrom(const format::RecordHeader& record, PieceSource& source,
                            std::span<unsigned char> buffer) {
  unsigned char head[format::kStoreHeaderSize];
  std::uint32_t at = header.endOffset;
  Write(at, head, record.Encode(head));
  at += sizeof head;
  MD5 whole = md5;
  whole.update(head, sizeof head);
  MD5 key;
  while (source.Left() > 0) {
    const auto piece = buffer.first(std::min<std::size_t>(source.Left(), buffer.size()));
    const auto size = static_cast<std::uint32_t>(piece.size());
    source.Read(piece);
    UpdateBoth(key, piece.data(), size, whole, piece.data(), size);
    Write(at, piece.data(), size);
    at += size;
  }
  if (std::memcmp(Finish(key).Bytes(), record.hash, format::kHashSize) != 0)
    throw Failure(FailureCode::Argument, "the data does not match the hash");
  return whole;
}

// Gives back the space of a record that came to nothing. Where it lay is not blank any more [C3],
// and neither is what lies past the end of a file [C2].
void RecordWriter::CutOff() noexcept {
  blankEnd = 0;
  try {
    file.truncate(header.endOffset);
  } catch (const std::exception&) {  // the close tries again
  }
}

void RecordWriter::UndoAppend(const FileHeader& before) {
  header = before;
  gather.Truncate(header.endOffset);
}

void RecordWriter::DigestGathered() {
  const std::span<const unsigned char> rest = gather.Undigested();
  md5.update(rest.data(), static_cast<std::uint32_t>(rest.size()));
  gather.Digested(rest.size());
}

void RecordWriter::EmptyGathered() {
  WriteOut();
  DigestGathered();
  gather.Restart(gather.End());
}

void RecordWriter::DigestBeside(MD5& other, const unsigned char* data, std::uint32_t size) {
  const std::span<const unsigned char> rest = gather.Undigested();
  UpdateBoth(other, data, size, md5, rest.data(), static_cast<std::uint32_t>(rest.size()));
  gather.Digested(rest.size());
}

bool RecordWriter::WriteEnd(long long id, FileHeader& next) {
  const std::uint32_t recordsEnd = header.endOffset;
  DigestGathered();
  // On copies: until the header is written, a failure leaves the transaction open as it was.
  TransactionBlock whole = block;
  whole.length = recordsEnd - blockOffset - format::kBlockSize;
  MD5 digest = md5;
  digest.finalize();
  digest.raw_digest(whole.digest);
  unsigned char blockBytes[format::kBlockSize];
  whole.Encode(blockBytes);
  unsigned char endRecord[format::kEndSize];
  OpHeader{format::kOpEndTransaction, id}.Encode(endRecord);

  if (!gather.Fits(sizeof endRecord)) EmptyGathered();
  gather.Reserve(sizeof endRecord);
  gather.Append(endRecord, sizeof endRecord);
  const bool blockWaits = gather.Patch(blockOffset, blockBytes, sizeof blockBytes);
  WriteOut();
  if (!blockWaits) Write(blockOffset, blockBytes, sizeof blockBytes);

  next = header;
  next.endOffset = gather.End();
  next.recordCount += 1;
  const bool isInBlank = beganInBlank && next.endOffset <= blankEnd &&
                         next.recordCount - countBefore <= format::kMostRecordsInBlank;  // [C2]
  zerosEnd = isInBlank ? blankEnd : next.endOffset;
  const std::uint32_t size = next.endOffset - (blockOffset - format::kOpHeaderSize);
  if (isJournal && commitCount >= format::kCommitsBeforeBlank && size <= kLeastBlank)
    MakeBlankAhead(next.endOffset);
  return !isInBlank;
}

// [C5] A failure costs a flush in later commits and nothing else.
void RecordWriter::MakeBlankAhead(std::uint32_t end) noexcept {
  // Never written; const would put it into the file.
  static unsigned char zeros[format::kBlankAhead];
  const std::uint32_t until = std::min(end + format::kBlankAhead, format::kMaxFileSize);
  if (!mayMakeBlank || zerosEnd >= until || zerosEnd - end >= kLeastBlank) return;
  hasMadeBlank = true;
  try {
    Write(zerosEnd, zeros, until - zerosEnd);
    blankBegin = end;  // all behind it is zeros now, whatever was written there before
    zerosEnd = until;
  } catch (const std::exception&) {
    mayMakeBlank = false;
    zerosEnd = end;
  }
}

void RecordWriter::Committed() {
  blankEnd = zerosEnd;
  commitCount += 1;
  gather.Restart(header.endOffset);
  ReleaseMemory();
}

void RecordWriter::NotCommitted() {
  gather.Truncate(header.endOffset);
  beganInBlank = false;  // [C4]
}

void RecordWriter::Abandon() {
  block = TransactionBlock{};
  gather.Restart(header.endOffset);
  ReleaseMemory();
}

void RecordWriter::ReleaseMemory() {
  if (isJournal) {
    gather.ReleaseExcess();
  } else {
    gather.ReleaseAll();
  }
}
