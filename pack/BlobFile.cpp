#include "pack/BlobFile.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

#include "pack/CutShort.h"
#include "pack/Replay.h"
#include "platform/Trace.h"

using format::FileHeader;
using format::OpHeader;
using format::TransactionBlock;

namespace {

// Data up to this size is copied and written together with other records.
constexpr std::uint32_t kMaxGatheredData = GatherBuffer::kUsualCapacity / 2;
// Where blobs come one by one to be put, larger data is copied too, so that it
// can be digested beside the next one: a copy takes a tenth of a digest.
constexpr std::uint32_t kMaxGatheredPut = 512 * 1024;

// What a commit makes blank behind itself in a journal whose file is used
// again: one write in some commits saves a flush in all of them.
constexpr std::uint32_t kBlankAhead = 64 * 1024;
// Past the end of a file there is nothing.
constexpr std::uint32_t kBlankForever = std::numeric_limits<std::uint32_t>::max();

char* Chars(unsigned char* bytes) {
  return reinterpret_cast<char*>(bytes);
}

std::uint32_t LengthOf(const File& file) {
  const std::uint32_t length = file.size();
  if (length == INVALID_FILE_SIZE)
    throw std::runtime_error("BlobFile: no length of " + file.Path() +
                             " GetLastError code = " + std::to_string(GetLastError()));
  return length;
}

// A file that a power cut caught while it was created: nothing was ever
// committed to it.
bool WasCutOffAtCreation(File& file, std::uint32_t length) {
  if (length < format::kFileHeaderSize) return true;
  if (length > format::kFileHeaderSize) return false;
  unsigned char bytes[format::kFileHeaderSize];
  file.seek(0);
  file.read(Chars(bytes), sizeof bytes);
  return std::all_of(std::begin(bytes), std::end(bytes), [](unsigned char byte) { return byte == 0; });
}

}  // namespace

BlobFile::BlobFile() = default;

BlobFile::BlobFile(const BlobFile& other)
    : BlobStoreBase(other),
      header(other.header),
      path(other.path),
      committed(other.committed),
      headerSound(other.headerSound) {}

BlobFile& BlobFile::operator=(const BlobFile& other) {
  if (this == &other) return *this;
  header = other.header;
  path = other.path;
  committed = other.committed;
  headerSound = other.headerSound;
  return *this;
}

BlobFile::~BlobFile() = default;

void BlobFile::Init(std::string filePath, BlobFileMode fileMode, unsigned int) {
  path = filePath;
  mode = fileMode;
  header.mode = fileMode;
  inDoubt = false;
  headerSound = true;
  file.open(path, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL);
  if (!WasCutOffAtCreation(file, LengthOf(file))) {
    ReadHeader();
    return;
  }
  header.endOffset = format::kFileHeaderSize;
  if (!UpdateHeader()) ThrowNotFlushed("header", GetLastError());
}

void BlobFile::ReadHeader() {
  unsigned char bytes[format::kFileHeaderSize];
  file.seek(0);
  file.read(Chars(bytes), sizeof bytes);
  header = FileHeader::Decode(bytes);
  committed = header;
  headerSound = header.endOffset >= format::kFileHeaderSize && header.endOffset <= LengthOf(file);
  blankEnd = 0;
}

bool BlobFile::UpdateHeader() {
  unsigned char bytes[format::kFileHeaderSize];
  header.Encode(bytes);
  WriteAt(0, bytes, sizeof bytes);
  if (!file.flush()) {
    inDoubt = true;
    return false;
  }
  committed = header;
  headerSound = true;
  return true;
}

// Makes next the header, in memory and on disk, or neither.
void BlobFile::Rewrite(const FileHeader& next) {
  const FileHeader before = header;
  header = next;
  bool flushed = false;
  try {
    flushed = UpdateHeader();
  } catch (...) {
    header = before;
    RestoreHeader();
    throw;
  }
  if (flushed) return;
  const DWORD code = GetLastError();
  header = before;
  PutCommittedHeader();
  ThrowNotFlushed("header", code);
}

// What memory shows must not be ahead of what is known to be on disk: the
// next process would build on it. False, after a message, when even that
// fails.
bool BlobFile::PutCommittedHeader() {
  if (!headerSound) return true;
  unsigned char bytes[format::kFileHeaderSize];
  committed.Encode(bytes);
  try {
    WriteAt(0, bytes, sizeof bytes);
    return true;
  } catch (const std::exception& e) {
    trace::pack.WriteErrorV("BlobFile: the header of %s is in doubt: %s", path.c_str(), e.what());
    return false;
  }
}

// A header that was written in part may count what was not acknowledged.
void BlobFile::RestoreHeader() {
  if (!PutCommittedHeader() || (headerSound && !file.flush())) inDoubt = true;
}

void BlobFile::ThrowNotFlushed(const char* what, std::uint32_t code) const {
  throw std::runtime_error(std::string("BlobFile: the ") + what + " of " + path +
                           " did not reach the disk, GetLastError code = " + std::to_string(code));
}

bool BlobFile::Reset() {
  RequireNotInDoubt();
  FileHeader empty;
  empty.mode = header.mode;
  empty.sequence = format::kSequenceReset;
  empty.endOffset = format::kFileHeaderSize;
  Rewrite(empty);
  blankEnd = 0;
  isDamaged = false;
  return true;
}

void BlobFile::SetSequence(std::int32_t sequence) {
  header.sequence = sequence;
}

void BlobFile::RequireNotInDoubt() const {
  if (inDoubt)
    throw std::runtime_error("BlobFile: a flush of " + path +
                             " has failed, no change is accepted until it is opened anew");
}

void BlobFile::RequireWritable() {
  if (!file.IsOpen()) file.seek(header.endOffset);  // throws; gathering must not hide that nothing can be written
  RequireNotInDoubt();
  if (!headerSound)
    throw std::runtime_error("BlobFile: the header of " + path + " is damaged, nothing is written through it");
}

void BlobFile::RequireRoom(std::uint64_t recordSize) const {
  if (header.endOffset + recordSize + format::kEndSize > format::kMaxFileSize)
    throw std::runtime_error("BlobFile: " + path + " at " + std::to_string(header.endOffset) + ": no room for " +
                             std::to_string(recordSize) + " bytes, a file ends at 2147483647");
}

void BlobFile::WriteAt(std::uint32_t offset, unsigned char* bytes, std::uint32_t size) {
  file.seek(offset);
  file.write(Chars(bytes), size);
}

bool BlobFile::StartTransaction(long long id) {
  RequireWritable();
  RequireRoom(format::kStartSize);
  unsigned char record[format::kStartSize] = {};
  OpHeader{format::kOpStartTransaction, id}.Encode(record);
  FindBlank();
  gather.Restart(header.endOffset);
  gather.Reserve(sizeof record);
  gather.Append(record, sizeof record);
  gather.Digested(sizeof record);

  block = TransactionBlock{};
  blockOffset = header.endOffset + format::kOpHeaderSize;
  header.endOffset += format::kStartSize;
  header.recordCount += 1;
  md5.init();
  return true;
}

// Appends one record, then counts it. Where that fails, nothing of it is in
// the buffer or in the digest, and what may have reached the file lies past
// the end.
void BlobFile::Append(const unsigned char* head, std::uint32_t headSize, unsigned char* data, std::uint32_t dataSize) {
  RequireWritable();
  RequireRoom(std::uint64_t{headSize} + dataSize);
  const bool isPut = std::exchange(digestedBeside, false);
  if (dataSize > (isPut ? kMaxGatheredPut : kMaxGatheredData)) {
    AppendDirectly(head, headSize, data, dataSize);
  } else {
    if (!gather.Fits(headSize + dataSize)) EmptyGathered();
    gather.Reserve(headSize + dataSize);
    gather.Append(head, headSize);
    gather.Append(data, dataSize);
  }
  header.endOffset += headSize + dataSize;
  header.recordCount += 1;
}

// Large data goes to the file from where it is. Its head travels with what
// was gathered before it.
void BlobFile::AppendDirectly(const unsigned char* head, std::uint32_t headSize, unsigned char* data,
                              std::uint32_t dataSize) {
  if (!gather.Fits(headSize)) EmptyGathered();
  gather.Reserve(headSize);
  gather.Append(head, headSize);
  try {
    gather.WriteOut(file);
    WriteAt(gather.End(), data, dataSize);
  } catch (...) {
    gather.Truncate(header.endOffset);
    throw;
  }
  DigestGathered();
  md5.update(data, dataSize);
  gather.Restart(gather.End() + dataSize);
}

void BlobFile::DigestGathered() {
  const std::span<const unsigned char> rest = gather.Undigested();
  md5.update(rest.data(), static_cast<unsigned>(rest.size()));
  gather.Digested(rest.size());
}

void BlobFile::EmptyGathered() {
  gather.WriteOut(file);
  DigestGathered();
  gather.Restart(gather.End());
}

bool BlobFile::Store(BlobFileEntry& entry, const BlobPair& blob) {
  const std::uint32_t offset = header.endOffset;
  const std::uint32_t size = blob.buffer.size;
  unsigned char head[format::kStoreHeadSize];
  OpHeader{format::kOpStore, entry.transactionId}.Encode(head);
  std::copy_n(blob.hash.Bytes(), format::kHashSize, head + format::kOpHeaderSize);
  format::Put32(head + format::kOpHeaderSize + format::kHashSize, size);
  Append(head, sizeof head, blob.buffer.data, size);

  header.maxBlobSize = std::max(header.maxBlobSize, size);
  block.maxBlobSize = std::max(block.maxBlobSize, size);
  entry.op = format::kOpStore;
  entry.offset = offset;
  entry.size = size;
  entry.ordinal = 0;
  entry.valid = true;
  entry.hash = blob.hash;
  return true;
}

bool BlobFile::Delete(BlobFileEntry& entry) {
  const std::uint32_t offset = header.endOffset;
  unsigned char record[format::kDeleteSize];
  OpHeader{format::kOpDelete, entry.transactionId}.Encode(record);
  std::copy_n(entry.hash.Bytes(), format::kHashSize, record + format::kOpHeaderSize);
  Append(record, sizeof record, nullptr, 0);
  entry.op = format::kOpDelete;
  entry.offset = offset;
  return true;
}

bool BlobFile::EndTransaction(long long id) {
  RequireWritable();
  // On copies: until the header is written, a failure leaves the transaction
  // open as it was.
  const std::uint32_t end = header.endOffset;
  DigestGathered();
  TransactionBlock whole = block;
  whole.length = end - blockOffset - format::kBlockSize;
  MD5 digest = md5;
  digest.finalize();
  digest.raw_digest(whole.digest);

  FileHeader next = header;
  next.endOffset = end + format::kEndSize;
  next.recordCount += 1;
  // Until this succeeds, what was written lies where the next attempt goes.
  const std::uint32_t blank = std::exchange(blankEnd, 0);
  try {
    const std::uint32_t blankNext = WriteEnd(id, whole, blank);
    Rewrite(next);
    blankEnd = blankNext;
  } catch (...) {
    gather.Truncate(end);
    throw;
  }
  ForgetGathered();
  return true;
}

// Blank space is only ever looked for, and made, in a journal: the one
// transaction of a pack does not pay for it.
void BlobFile::FindBlank() {
  if (mode == Journal && file.size() == header.endOffset) blankEnd = kBlankForever;
}

// Makes space behind a transaction blank that is not yet, as far as the file
// reaches; it is flushed with what follows. Returns where the blank space then
// ends. Where it cannot be written there is none: that costs a flush later.
std::uint32_t BlobFile::BlankBehind(std::uint32_t end, std::uint32_t from) noexcept {
  static unsigned char zeros[kBlankAhead];
  try {
    const std::uint32_t length = LengthOf(file);
    if (from >= length) return kBlankForever;
    const std::uint32_t until = std::min(length, end + kBlankAhead);
    if (until > from) WriteAt(from, zeros, until - from);
    return until == length ? kBlankForever : until;
  } catch (const std::exception&) {
    return 0;
  }
}

// Everything of the transaction but its header, flushed where that is needed
// before the header. Takes where the blank space ends, and returns where it
// does once the header is flushed.
std::uint32_t BlobFile::WriteEnd(long long id, const TransactionBlock& whole, std::uint32_t blank) {
  unsigned char endRecord[format::kEndSize];
  OpHeader{format::kOpEndTransaction, id}.Encode(endRecord);
  unsigned char blockBytes[format::kBlockSize];
  whole.Encode(blockBytes);

  if (!gather.Fits(sizeof endRecord)) EmptyGathered();
  gather.Reserve(sizeof endRecord);
  gather.Append(endRecord, sizeof endRecord);
  const bool blockGathered = gather.Patch(blockOffset, blockBytes, sizeof blockBytes);
  gather.WriteOut(file);
  if (!blockGathered) WriteAt(blockOffset, blockBytes, sizeof blockBytes);

  const std::uint32_t end = gather.End();
  const bool isInBlank = end <= blank;
  std::uint32_t next = isInBlank ? blank : end;
  if (mode == Journal && next - end < kBlankAhead / 2) next = BlankBehind(end, next);

  // Records before header: a header that counts these must never meet
  // others in their place. In blank space there are no others: what does not
  // reach the disk is zeros or missing, which a load tells from records, and
  // the flush of the header is enough.
  if (isInBlank || file.flush()) return next;
  inDoubt = true;
  ThrowNotFlushed("records", GetLastError());
}

void BlobFile::CancelTransaction() {
  const std::int32_t sequence = header.sequence;  // may be ahead of the disk
  header = committed;
  header.sequence = sequence;
  block = TransactionBlock{};
  if (gather.WrittenEnd() > header.endOffset) blankEnd = 0;
  ForgetGathered();
}

// A pack takes one transaction, a journal the next one soon.
void BlobFile::ForgetGathered() {
  gather.Restart(header.endOffset);
  if (mode == Pack) {
    gather.ReleaseAll();
  } else {
    gather.ReleaseExcess();
  }
}

void BlobFile::CommitHeader() {
  RequireWritable();
  Rewrite(header);
}

void BlobFile::DigestBeside(MD5& other, const unsigned char* data, std::uint32_t size) {
  const std::span<const unsigned char> rest = gather.Undigested();
  UpdateBoth(other, data, size, md5, rest.data(), static_cast<std::uint32_t>(rest.size()));
  gather.Digested(rest.size());
  digestedBeside = true;
}

bool BlobFile::Load(Entries& out) {
  ReadHeader();
  isDamaged = true;
  loadedCount = 0;
  loadedEnd = format::kFileHeaderSize;
  const std::uint32_t length = LengthOf(file);
  if (!headerSound) {
    trace::pack.WriteWarnV("BlobFile::Load corruption, header endOffset=%d of a file of %d bytes file=%s",
                           static_cast<int>(header.endOffset), static_cast<int>(length), path.c_str());
    if (header.endOffset > length) ReplayCutOff(out, length);
    return false;
  }
  const bool isSound = Replay(*this, out, length).Run();
  isDamaged = !isSound || (loadedCount == 0 && !LoadedAll());
  return isSound;
}

// A file that has lost its end: what comes whole before that is good.
void BlobFile::ReplayCutOff(Entries& out, std::uint32_t length) {
  try {
    Replay(*this, out, length).Run();
  } catch (const CutShort& e) {
    trace::pack.WriteWarnV("%s", e.what());
  }
}

bool BlobFile::LoadedAll() const {
  return headerSound && loadedCount == header.recordCount && loadedEnd == header.endOffset;
}

void BlobFile::KeepLoaded() {
  try {
    if (!headerSound && loadedCount == 0) {
      Reset();
      return;
    }
    RequireNotInDoubt();
    FileHeader whole = header;
    whole.recordCount = loadedCount;
    whole.endOffset = loadedEnd;
    blankEnd = 0;
    Rewrite(whole);
  } catch (const std::exception& e) {
    inDoubt = true;
    trace::pack.WriteErrorV("BlobFile: %s cannot be mended, no change is accepted: %s", path.c_str(), e.what());
  }
}

bool BlobFile::Secure() {
  if (!file.flush()) inDoubt = true;
  return !inDoubt;
}
