#include "pack/Replay.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "pack/FileScanner.h"
#include "pack/RecordParser.h"
#include "pack/TransactionRun.h"
#include "platform/Trace.h"

using format::OpHeader;

namespace {

// Takes entries back unless they are confirmed: out never ends with records
// of a transaction that was not read whole.
class EntriesGuard {
 public:
  explicit EntriesGuard(BlobFile::Entries& entries) : out(entries), kept(entries.size()) {}
  EntriesGuard(const EntriesGuard&) = delete;
  EntriesGuard& operator=(const EntriesGuard&) = delete;
  ~EntriesGuard() { out.erase(out.begin() + static_cast<std::ptrdiff_t>(kept), out.end()); }
  std::size_t Added() const { return out.size() - kept; }
  void Confirm() { kept = out.size(); }

 private:
  BlobFile::Entries& out;
  std::size_t kept;
};

}  // namespace

Replay::Replay(BlobFile& file, BlobFile::Entries& entries, std::uint32_t fileLength)
    : target(file),
      out(entries),
      length(fileLength),
      remaining(static_cast<std::int32_t>(file.header.recordCount)),
      progress(file.loadProgress, file.header.endOffset) {}

bool Replay::Run() {
  FileScanner scanner(target.file, format::kFileHeaderSize, length);
  std::optional<TransactionRun> run(std::in_place, scanner, progress);
  while (remaining != 0) {
    if (remaining < 0 || scanner.Left() == 0) return MissingRecords(remaining);
    if (TakeMany(scanner, run)) continue;
    --remaining;
    const std::uint32_t offset = scanner.Offset();
    unsigned char bytes[format::kOpHeaderSize];
    scanner.Read(bytes, sizeof bytes);
    const OpHeader record = OpHeader::Decode(bytes);
    if (!Step(scanner, offset, record)) return false;
  }
  return true;
}

// The transactions that come next, up to the first that is not whole. False
// when that is the next one, or when it stands alone. A failure is not
// reported: who takes the transactions one by one will meet it, if it lasts.
// From the first fault on that is the only way, so that no byte is digested
// more than twice, and without the memory that this one takes.
bool Replay::TakeMany(FileScanner& scanner, std::optional<TransactionRun>& run) {
  constexpr std::int32_t kFewestRecords = 2 * 3;  // of two transactions
  if (!run || remaining < kFewestRecords) return false;
  const std::uint32_t from = scanner.Offset();
  bool nothingAmiss = false;
  try {
    const std::size_t count = run->Find(std::min(length, target.header.endOffset), remaining);
    std::size_t taken = 0;
    if (count > 1) {
      run->Digest();
      for (; taken < count && run->IsWhole(taken, remaining); ++taken) {
        BlobFile::Entries entries = run->TakeEntries(taken);
        out.insert(out.end(), std::make_move_iterator(entries.begin()), std::make_move_iterator(entries.end()));
        remaining -= static_cast<std::int32_t>(entries.size()) + 2;
        scanner.SkipTo(run->EndOf(taken));
        MarkWhole(scanner.Offset());
      }
    }
    nothingAmiss = count < 2 || taken == count;
  } catch (const std::exception&) {
  }
  if (!nothingAmiss) run.reset();
  return scanner.Offset() != from;
}

bool Replay::Step(FileScanner& scanner, std::uint32_t offset, const OpHeader& record) {
  switch (record.op) {
    case format::kOpStartTransaction:
      return Transaction(scanner, record);
    case format::kOpEndTransaction:
      return Corrupt("corruption, end transaction without start transaction", record.transactionId);
    case format::kOpStore:
    case format::kOpDelete:
      return Single(scanner, offset, record);
    default:
      return UnsupportedOp(record.op);
  }
}

void Replay::MarkWhole(std::uint32_t end) {
  target.loadedCount = target.header.recordCount - static_cast<std::uint32_t>(remaining);
  target.loadedEnd = end;
}

// A record outside any transaction. No store writes one. It is believed if it
// is what it says: where a start record did not reach the disk, zeros and the
// rest of it look like a store record.
bool Replay::Single(FileScanner& scanner, std::uint32_t offset, const OpHeader& record) {
  BlobFile::BlobFileEntry entry;
  entry.op = record.op;
  entry.transactionId = record.transactionId;
  entry.offset = offset;
  unsigned char hash[format::kHashSize];
  scanner.Read(hash, sizeof hash);
  entry.hash.setHash(hash);
  if (record.op == format::kOpStore) {
    unsigned char size[4];
    scanner.Read(size, sizeof size);
    entry.size = format::Get32(size);
    if (entry.size > scanner.Left())
      return Corrupt("corruption, record runs past the end of the file", record.transactionId);
    MD5 md5;
    for (std::uint32_t left = entry.size; left > 0;) {
      const std::span<const unsigned char> piece = scanner.Next(left);
      md5.update(piece.data(), static_cast<unsigned>(piece.size()));
      left -= static_cast<std::uint32_t>(piece.size());
    }
    md5.finalize();
    unsigned char digest[format::kDigestSize];
    md5.raw_digest(digest);
    if (std::memcmp(digest, hash, sizeof digest) != 0)
      return Corrupt("corruption, record outside a transaction does not match its hash", record.transactionId);
    entry.valid = true;
  }
  out.push_back(entry);
  MarkWhole(scanner.Offset());
  return true;
}

bool Replay::Transaction(FileScanner& scanner, const OpHeader& start) {
  unsigned char bytes[format::kBlockSize];
  scanner.Read(bytes, sizeof bytes);
  const format::TransactionBlock block = format::TransactionBlock::Decode(bytes);
  if (block.length == 0) {
    trace::pack.WriteErrorV(
        "BlobFile::Load EOF error during validation of transaction.  This is normal for first boot after a disk wipe, "
        "but no other time.");
    return false;
  }

  EntriesGuard guard(out);
  RecordParser parser(out, remaining, scanner.Offset());
  MD5 md5;
  for (std::uint32_t left = block.length; left > 0;) {
    const std::span<const unsigned char> piece = scanner.Next(left);
    md5.update(piece.data(), static_cast<unsigned>(piece.size()));
    parser.Feed(piece);
    left -= static_cast<std::uint32_t>(piece.size());
    progress.Reached(scanner.Offset());
  }
  md5.finalize();
  unsigned char digest[format::kDigestSize];
  md5.raw_digest(digest);
  if (std::memcmp(digest, block.digest, sizeof digest) != 0)
    return Corrupt("(start transaction) corruption, bad hash value", start.transactionId);

  // Whole as it was written. What remains is whether a store wrote it.
  if (parser.Stopped() == RecordParser::Stop::BadRecord) {
    if (parser.Op() == format::kOpStartTransaction) return Corrupt("corruption, nested transaction", parser.Id());
    if (parser.Op() == format::kOpEndTransaction)
      return Corrupt("corruption, transaction ends before its length", parser.Id());
    return UnsupportedOp(parser.Op());
  }
  if (remaining == 0) return OpenTransaction(guard.Added());
  if (!parser.AtBoundary()) return Corrupt("corruption, record runs past its transaction", start.transactionId);
  if (!End(scanner)) return false;
  guard.Confirm();
  MarkWhole(scanner.Offset());
  return true;
}

// The end record, which must stand where the digest ends.
bool Replay::End(FileScanner& scanner) {
  if (scanner.Left() == 0) return MissingRecords(remaining);
  --remaining;
  unsigned char bytes[format::kOpHeaderSize];
  scanner.Read(bytes, sizeof bytes);
  const OpHeader record = OpHeader::Decode(bytes);
  switch (record.op) {
    case format::kOpEndTransaction:
      return true;
    case format::kOpStartTransaction:
      return Corrupt("corruption, nested transaction", record.transactionId);
    case format::kOpStore:
    case format::kOpDelete:
      return Corrupt("corruption, record outside the digest of its transaction", record.transactionId);
    default:
      return UnsupportedOp(record.op);
  }
}

bool Replay::MissingRecords(std::int32_t wanted) const {
  trace::pack.WriteWarnV("BlobFile::Load() didn't process all the entries entries=%d file=%s", wanted,
                         target.path.c_str());
  return false;
}

// Not damage: the header counts no further, and what it counts was whole.
bool Replay::OpenTransaction(std::size_t entries) const {
  if (entries > 0)
    trace::pack.WriteErrorV(
        "BlobFile::Load() failed to find the end of the transaction (transactions=%d entries=%d file=%s)",
        static_cast<int>(entries), remaining, target.path.c_str());
  return true;
}

bool Replay::Corrupt(const char* what, std::int64_t transactionId) const {
  trace::pack.WriteWarnV("BlobFile::Load %s id=%d file=%s", what, static_cast<int>(transactionId), target.path.c_str());
  return false;
}

bool Replay::UnsupportedOp(std::int32_t op) const {
  trace::pack.WriteWarnV("BlobFile::Load() unsupported op=%d file=%s", op, target.path.c_str());
  return false;
}
