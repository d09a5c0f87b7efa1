#include "pack/BlobFile.h"

#include <algorithm>
#include <utility>

#include "pack/Replay.h"
#include "pack/format/Headers.h"
#include "platform/Trace.h"

using format::FileHeader;
using format::RecordHeader;

namespace {

// Data up to this size is copied and written together with other records.
constexpr std::uint32_t kMaxGatheredData = GatherBuffer::kUsualCapacity / 2;
// Where records may wait, larger data is copied too, so that it can be digested beside the next
// blob: a copy takes a tenth of a digest.
constexpr std::uint32_t kMaxGatheredPut = 512 * 1024;

// Kept free in a journal, so that a store that is filled to the brim can still delete: 64 deletes,
// each in a transaction of its own.
constexpr std::uint32_t kReservedForDeletes = 64 * format::kLeastTransaction;

std::uint32_t LengthOf(const File& file) {
  const std::uint32_t length = file.size();
  if (length != INVALID_FILE_SIZE) return length;
  const DWORD code = GetLastError();
  throw Failure(SystemCode{code}, "BlobFile: no length of ", file.Path(),
                " GetLastError code = ", code);
}

}  // namespace

BlobFile::BlobFile() = default;

BlobFile::BlobFile(const BlobFile& other)
    : BlobStoreBase(other), header(other.header), path(other.path) {}

BlobFile& BlobFile::operator=(const BlobFile& other) {
  if (this == &other) return *this;
  header = other.header;
  path = other.path;
  return *this;
}

BlobFile::~BlobFile() = default;

void BlobFile::Open(const std::string& filePath, BlobFileMode fileMode, unsigned access,
                    unsigned disposition) {
  file.close();
  path = filePath;
  mode = fileMode;
  header = format::FreshHeader(fileMode);
  state = State::Clean;
  committedIsSound = false;
  cutOnClose = false;
  loaded = Loaded{};
  file.open(path, access, disposition, FILE_ATTRIBUTE_NORMAL);
}

bool BlobFile::IsNew(std::uint32_t length) {
  if (length > format::kFileHeaderSize) return false;
  unsigned char bytes[format::kFileHeaderSize] = {};
  file.seek(0);
  file.read(reinterpret_cast<char*>(bytes), length);
  return format::WasCutOff(bytes, length, mode);
}

void BlobFile::Init(std::string filePath, BlobFileMode fileMode, unsigned int) {
  Open(filePath, fileMode, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS);
  const std::uint32_t length = LengthOf(file);
  if (!IsNew(length)) {
    ReadHeader();
    return;
  }
  if (length > 0)
    trace::pack.WriteWarnV(
        "BlobFile::Init %s was cut off at %d bytes while it was created, it gets a new header",
        path, length);
  writer.Restart(mode == Journal);
  if (!UpdateHeader()) ThrowNotFlushed("header", GetLastError());
}

void BlobFile::Create(const std::string& filePath, BlobFileMode fileMode) {
  Open(filePath, fileMode, GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
  header.sequence = format::kSequenceReset;
  writer.Restart(mode == Journal);
  if (!UpdateHeader()) ThrowNotFlushed("header", GetLastError());
}

void BlobFile::Replace(const std::string& target) {
  file.replace(target);
  path = target;
}

void BlobFile::InitReadOnly(const std::string& filePath, BlobFileMode fileMode) {
  Open(filePath, fileMode, GENERIC_READ, OPEN_EXISTING);
  if (!IsNew(LengthOf(file))) ReadHeader();
}

bool BlobFile::HeaderIsSound() const {
  return format::EndsWithin(header, LengthOf(file));
}

void BlobFile::ReadHeader() {
  unsigned char bytes[format::kFileHeaderSize];
  file.seek(0);
  file.read(reinterpret_cast<char*>(bytes), sizeof bytes);
  header = FileHeader::Decode(bytes);
  committed = header;
  committedIsSound = HeaderIsSound();
  if (state != State::InDoubt) state = committedIsSound ? State::Clean : State::Damaged;
  writer.Restart(mode == Journal);
}

void BlobFile::WriteHeader(const FileHeader& next) {
  unsigned char bytes[format::kFileHeaderSize];
  next.Encode(bytes);
  file.seek(0);
  file.write(reinterpret_cast<char*>(bytes), sizeof bytes);
}

bool BlobFile::UpdateHeader() {
  WriteHeader(header);
  if (!file.flush()) {
    state = State::InDoubt;
    return false;
  }
  committed = header;
  committedIsSound = true;
  if (state != State::InDoubt) state = State::Clean;
  return true;
}

// Makes next the header, in memory and on disk, or neither.
void BlobFile::Rewrite(const FileHeader& next) {
  const FileHeader before = std::exchange(header, next);
  bool flushed = false;
  try {
    flushed = UpdateHeader();
  } catch (...) {
    // A header that was written in part may count what was not acknowledged.
    header = before;
    if (!PutCommittedHeader() || (committedIsSound && !file.flush())) state = State::InDoubt;
    throw;
  }
  if (flushed) return;
  const DWORD code = GetLastError();
  header = before;
  PutCommittedHeader();
  ThrowNotFlushed("header", code);
}

// What memory shows must not be ahead of what is known to be on disk: the next process would build
// on it. False, after a message, when that fails.
bool BlobFile::PutCommittedHeader() {
  if (!committedIsSound) return true;
  try {
    WriteHeader(committed);
    return true;
  } catch (const std::exception& e) {
    trace::pack.WriteErrorV("BlobFile: the header of %s is in doubt: %s", path, e.what());
    return false;
  }
}

void BlobFile::ThrowNotFlushed(const char* what, std::uint32_t code) const {
  throw Failure(FailureCode::InDoubt, SystemCode{code}, "BlobFile: the ", what, " of ", path,
                " did not reach the disk, GetLastError code = ", code);
}

bool BlobFile::Reset() {
  RequireNotInDoubt();
  FileHeader empty;
  empty.mode = header.mode;
  empty.sequence = format::kSequenceReset;
  empty.endOffset = format::kFileHeaderSize;
  Rewrite(empty);
  loaded = Loaded{};
  cutOnClose = true;
  writer.Restart(mode == Journal);
  return true;
}

void BlobFile::RequireNotInDoubt() const {
  if (InDoubt())
    throw Failure(FailureCode::InDoubt, "BlobFile: a flush of ", path,
                  " has failed, no change is accepted until it is opened again");
}

void BlobFile::RequireWritable() {
  if (!file.IsOpen())
    file.seek(header.endOffset);  // throws: gathering must not hide that nothing can be written
  RequireNotInDoubt();
  if (IsDamaged())
    throw Failure(FailureCode::Damaged, "BlobFile: ", path,
                  " is damaged, nothing is written through its header");
}

// With the end record. The reserve is waived for a blob that would not fit into an empty journal
// with it.
void BlobFile::RequireRoom(const RecordHeader& record) const {
  const std::uint64_t size = record.op.op == format::kOpStore
                                 ? std::uint64_t{format::kStoreHeaderSize} + record.size
                                 : format::kDeleteSize;
  const std::uint64_t alone =
      format::kFileHeaderSize + format::kStartSize + size + format::kEndSize;
  const bool reserves = mode == Journal && record.op.op == format::kOpStore &&
                        alone + kReservedForDeletes <= format::kMaxFileSize;
  if (header.endOffset + size + format::kEndSize + (reserves ? kReservedForDeletes : 0) <=
      format::kMaxFileSize)
    return;
  throw Failure(FailureCode::Full, "BlobFile: ", path, " at ", header.endOffset, ": no room for ",
                size, " bytes, a file ends at ", format::kMaxFileSize);
}

void BlobFile::BeginTransaction(long long id) {
  RequireWritable();
  RequireRoom(RecordHeader{{format::kOpDelete, 0}, {}, 0});  // no transaction takes less
  writer.Begin(id);
  state = State::InTransaction;
}

bool BlobFile::StartTransaction(long long id) {
  BeginTransaction(id);
  try {
    writer.WriteOut();
  } catch (...) {
    AbandonTransaction();
    throw;
  }
  return true;
}

template <class Write>
void BlobFile::AppendBy(Write write, BlobFileEntry& entry, std::int32_t op, const Hash& hash,
                        std::uint32_t size) {
  RecordHeader record{{op, entry.transactionId}, {}, size};
  std::copy_n(hash.Bytes(), format::kHashSize, record.hash);
  RequireWritable();
  RequireRoom(record);
  entry.offset = header.endOffset;
  try {
    write(record);
  } catch (...) {
    cutOnClose = true;
    throw;
  }
  entry.op = op;
  if (op != format::kOpStore) return;
  header.maxBlobSize = std::max(header.maxBlobSize, size);
  block.maxBlobSize = std::max(block.maxBlobSize, size);
  entry.hash = hash;
  entry.size = size;
  entry.ordinal = 0;
  entry.valid = true;
}

void BlobFile::Append(BlobFileEntry& entry, std::int32_t op, const Hash& hash,
                      const RawBuffer& data, std::uint32_t mostGathered) {
  const auto write = [&](const RecordHeader& record) {
    writer.Append(record, data.data, mostGathered);
  };
  AppendBy(write, entry, op, hash, data.size);
}

void BlobFile::StoreFrom(BlobFileEntry& entry, const Hash& hash, PieceSource& source,
                         std::span<unsigned char> buffer) {
  const auto write = [&](const RecordHeader& record) { writer.AppendFrom(record, source, buffer); };
  AppendBy(write, entry, format::kOpStore, hash, source.Left());
}

// Append, and the record is in the file when it returns.
void BlobFile::AppendNow(BlobFileEntry& entry, std::int32_t op, const Hash& hash,
                         const RawBuffer& data) {
  const FileHeader before = header;
  const format::TransactionBlock blockBefore = block;
  Append(entry, op, hash, data, kMaxGatheredData);
  try {
    writer.WriteOut();
  } catch (...) {
    writer.UndoAppend(before);
    block = blockBefore;
    cutOnClose = true;
    throw;
  }
}

void BlobFile::Gather(BlobFileEntry& entry, const BlobPair& blob) {
  Append(entry, format::kOpStore, blob.hash, blob.buffer, kMaxGatheredPut);
}

void BlobFile::GatherDelete(BlobFileEntry& entry) {
  Append(entry, format::kOpDelete, entry.hash, RawBuffer{}, kMaxGatheredPut);
}

bool BlobFile::Store(BlobFileEntry& entry, const BlobPair& blob) {
  AppendNow(entry, format::kOpStore, blob.hash, blob.buffer);
  return true;
}

bool BlobFile::Delete(BlobFileEntry& entry) {
  AppendNow(entry, format::kOpDelete, entry.hash, RawBuffer{});
  return true;
}

bool BlobFile::EndTransaction(long long id) {
  RequireWritable();
  try {
    FileHeader next;
    if (writer.WriteEnd(id, next) && !file.flush()) {
      const DWORD code = GetLastError();
      state = State::InDoubt;
      ThrowNotFlushed("records", code);
    }
    Rewrite(next);
  } catch (...) {
    writer.NotCommitted();
    throw;
  }
  writer.Committed();
  return true;
}

void BlobFile::AbandonTransaction() {
  cutOnClose = true;
  const std::int32_t sequence = header.sequence;  // may be ahead of the disk
  header = committed;
  header.sequence = sequence;
  if (state == State::InTransaction) state = State::Clean;
  writer.Abandon();
}

void BlobFile::CommitHeader() {
  RequireWritable();
  Rewrite(header);
}

bool BlobFile::GetBlob(BlobPair& blob, unsigned int offset) {
  return ReadBlob(blob, offset, BlobPair::Patience::Rereads);
}

bool BlobFile::ReadBlob(BlobPair& blob, unsigned int offset, BlobPair::Patience patience) const {
  // A small blob is read together with its record's head, in one call.
  constexpr std::uint32_t kMaxSmallBlob = 4096;
  unsigned char bytes[format::kStoreHeaderSize + kMaxSmallBlob];
  const std::uint32_t dataSize = blob.buffer.size <= kMaxSmallBlob ? blob.buffer.size : 0;
  return DecodeBlob(blob, offset, file.readSome(offset, bytes, format::kStoreHeaderSize + dataSize),
                    patience);
}

bool BlobFile::DecodeBlob(BlobPair& blob, unsigned int offset, const BytesRead& record,
                          BlobPair::Patience patience) const {
  const auto got = static_cast<std::uint32_t>(record.held.size());
  if (got < format::kOpHeaderSize) throw File::ShortRead(format::kOpHeaderSize, got, record.code);
  const std::int32_t op = format::OpHeader::Decode(record.held.data()).op;
  if (op != format::kOpStore) {
    trace::pack.WriteErrorV(
        "BlobFile::GetBlob() unable to read blob filename=%s offset=%d hash=%s op=%d", path, offset,
        blob.hash.toString(), op);
    return false;
  }
  if (got < format::kDeleteSize)
    throw File::ShortRead(format::kHashSize, got - format::kOpHeaderSize, record.code);
  if (got < format::kStoreHeaderSize)
    throw File::ShortRead(sizeof(std::uint32_t), got - format::kDeleteSize, record.code);
  RecordHeader head = RecordHeader::Decode(record.held.data());
  blob.hash.setHash(head.hash);
  const BytesRead data{record.held.subspan(format::kStoreHeaderSize),
                       record.asked - format::kStoreHeaderSize, record.code};
  blob.ReadData(file, offset + format::kOpHeaderSize, head.size, data, patience);
  return true;
}

void BlobFile::RequireBlob(const BlobPair& read, unsigned int offset, const Hash& wanted,
                           std::uint32_t wantedSize) const {
  if (read.hash == wanted && read.buffer.size == wantedSize) return;
  throw Failure(FailureCode::Damaged, "BlobFile::GetBlob() ", path, " at ", offset,
                ": wanted hash ", wanted.toString(), " size ", wantedSize, ", got ",
                read.hash.toString(), " size ", read.buffer.size);
}

bool BlobFile::Load(Entries& out) {
  const bool isWhole = LoadRecords(out);
  if (!loaded.cutShort.empty()) throw Failure(FailureCode::Damaged, loaded.cutShort);
  return isWhole;
}

bool BlobFile::LoadRecords(Entries& out) {
  ReadHeader();
  loaded = Loaded{};
  const std::uint32_t length = LengthOf(file);
  if (!committedIsSound)
    trace::pack.WriteWarnV(
        "BlobFile::Load corruption, header endOffset=%d of a file of %d bytes file=%s",
        header.endOffset, length, path);
  const std::size_t before = out.size();
  const format::ReadResult found =
      Replay(file, header, length, loadProgress).Run(out, mode, loaded.rest);
  loaded.count = static_cast<std::uint32_t>(found.recordCount);
  loaded.end = static_cast<std::uint32_t>(found.end);
  for (std::size_t i = before; i < out.size(); ++i)
    loaded.largest = std::max(loaded.largest, out[i].size);
  if (found.broken.IsInside())
    loaded.cutShort = File::ShortRead(found.broken.wanted, found.broken.got, ERROR_SUCCESS).what();
  // Also damaged: a header that covers records of which no transaction is whole. A load succeeds
  // all the same.
  const bool isDamaged = static_cast<bool>(found.broken);
  if (state == State::Clean && (isDamaged || (loaded.count == 0 && !LoadedAll())))
    state = State::Damaged;
  return !isDamaged;
}

bool BlobFile::LoadedAll() const {
  return committedIsSound && loaded.count == header.recordCount && loaded.end == header.endOffset;
}

std::uint32_t BlobFile::CoveredEnd() const {
  const std::uint32_t length = LengthOf(file);
  return committedIsSound ? header.endOffset : length;
}

void BlobFile::KeepLoaded(std::int32_t sequence) {
  try {
    RequireNotInDoubt();
    FileHeader whole = header;
    if (!committedIsSound) {
      whole = FileHeader{};
      whole.mode = mode;
      whole.sequence = sequence;
      whole.maxBlobSize = std::max(whole.maxBlobSize, loaded.largest);
      cutOnClose = true;
    }
    whole.recordCount = loaded.count;
    whole.endOffset = loaded.end;
    Rewrite(whole);
    writer.Restart(mode == Journal);
  } catch (const std::exception& e) {
    state = State::InDoubt;
    trace::pack.WriteErrorV(
        "BlobFile: the header of %s cannot be put right, no change is accepted: %s", path,
        e.what());
  }
}

bool BlobFile::MakeDurable() {
  if (!file.flush()) state = State::InDoubt;
  return !InDoubt();
}

void BlobFile::CutToRecords() noexcept {
  if (!file.IsOpen() || (state != State::Clean && state != State::InTransaction)) return;
  try {
    if (state == State::InTransaction) AbandonTransaction();  // closing abandons it
    if (!cutOnClose && !writer.HasMadeBlank()) return;
    const std::uint32_t end = std::max(header.endOffset, loaded.end);
    if (LengthOf(file) > end) file.truncate(end);
  } catch (const std::exception& e) {
    trace::pack.notes.WriteWarnV("BlobFile: %s is longer than its records and cannot be cut: %s",
                                 path.c_str(), e.what());
  }
}
