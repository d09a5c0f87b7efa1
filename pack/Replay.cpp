#include "pack/Replay.h"

#include <algorithm>
#include <iterator>

#include "platform/Trace.h"

using format::Break;
using format::ReadResult;
using format::Record;

namespace {

BlobFile::BlobFileEntry EntryOf(const Record& record, std::uint32_t ordinal) {
  BlobFile::BlobFileEntry entry;
  entry.op = record.op.op;
  entry.transactionId = record.op.transactionId;
  entry.ordinal = ordinal;
  entry.offset = static_cast<std::uint32_t>(record.offset);
  entry.hash.setHash(const_cast<unsigned char*>(record.hash));  // only reads it
  entry.size = record.size;
  entry.valid = record.IsStore();
  return entry;
}

// For a record, or a transaction, that has an id.
trace::FormatFor<int, std::string> WordsFor(const Break& broken) {
  using Cause = Break::Cause;
  using Place = Break::Place;
  const std::int32_t op = broken.record.op;
  if (broken.cause == Cause::kDigest)
    return "BlobFile::Load (start transaction) corruption, bad hash value id=%d file=%s";
  if (broken.cause == Cause::kHash)
    return "BlobFile::Load corruption, record outside a transaction does not match its hash id=%d "
           "file=%s";
  if (broken.cause == Cause::kTooLong && broken.place == Place::kSingle)
    return "BlobFile::Load corruption, record runs past the end of the file id=%d file=%s";
  if (broken.cause == Cause::kTooLong)
    return "BlobFile::Load corruption, record runs past its transaction id=%d file=%s";
  if (op == format::kOpStartTransaction)
    return "BlobFile::Load corruption, nested transaction id=%d file=%s";
  if (op == format::kOpEndTransaction && broken.place == Place::kOutside)
    return "BlobFile::Load corruption, end transaction without start transaction id=%d file=%s";
  if (op == format::kOpEndTransaction)
    return "BlobFile::Load corruption, transaction ends before its length id=%d file=%s";
  return "BlobFile::Load corruption, record outside the digest of its transaction id=%d file=%s";
}

}  // namespace

ReadResult Replay::Run(BlobFile::Entries& out, BlobFile::BlobFileMode mode, torn::Verdict& rest) {
  entries = &out;
  format::RecordReader reader(*this, header, *this);
  const ReadResult result = reader.Run();
  Say(result);
  if (result.broken && mode == BlobFile::Journal) rest = reader.JudgeRest();
  return result;
}

void Replay::OnRecord(std::size_t lane, const Record& record) {
  lanes[lane].push_back(EntryOf(record, static_cast<std::uint32_t>(lanes[lane].size()) + 1));
}

void Replay::OnTransaction(std::size_t lane, const format::Transaction& /*transaction*/) {
  BlobFile::Entries& found = lanes[lane];
  if (entries->empty()) {
    entries->swap(found);
  } else {
    entries->insert(entries->end(), std::make_move_iterator(found.begin()),
                    std::make_move_iterator(found.end()));
  }
  found = BlobFile::Entries();
}

void Replay::OnSingle(const Record& record) {
  entries->push_back(EntryOf(record, 0));
}

// Once per MiB. A load cannot be stopped: half an index would pass for a whole one.
void Replay::OnDigested(std::uint64_t end) {
  constexpr std::uint64_t kStep = 1024 * 1024;
  if (progress == nullptr || end < reported || end - reported < kStep) return;
  reported = end;
  progress->Stops(ProgressCall::kLoad, end, std::max<std::uint64_t>(end, header.endOffset));
}

unsigned char* Replay::Lend(std::size_t size) {
  try {
    lent.resize(size);
    return lent.data();
  } catch (const Failure&) {
    return nullptr;
  }
}

std::span<unsigned char> Replay::Allocate(std::size_t size) {
  ResizeOrSmaller(window, size, kLeastWindow);
  return window;
}

void Replay::ReadFile(std::uint64_t offset, unsigned char* to, std::size_t size) {
  file.seek(static_cast<unsigned>(offset));
  file.read(reinterpret_cast<char*>(to), static_cast<unsigned>(size));
}

void Replay::Say(const ReadResult& result) const {
  const Break& broken = result.broken;
  switch (broken.cause) {
    case Break::Cause::kNone:
      if (result.leftOut > 0)
        trace::pack.WriteErrorV(
            "BlobFile::Load() failed to find the end of the transaction (transactions=%d "
            "entries=%d file=%s)",
            static_cast<int>(result.leftOut), 0, file.Path());
      return;
    case Break::Cause::kCount:
    case Break::Cause::kFileEnds:
      if (!broken.IsInside())
        trace::pack.WriteWarnV("BlobFile::Load() didn't process all the entries entries=%d file=%s",
                               static_cast<int>(broken.missing), file.Path());
      return;
    case Break::Cause::kNotEnded:
      trace::pack.WriteErrorV(
          "BlobFile::Load EOF error during validation of transaction.  This is normal for first "
          "boot after a disk wipe, but no other time.");
      return;
    default:
      break;
  }
  const bool isUnknown = broken.cause == Break::Cause::kOp &&
                         static_cast<std::uint32_t>(broken.record.op) > format::kOpEndTransaction;
  if (isUnknown)
    trace::pack.WriteWarnV("BlobFile::Load() unsupported op=%d file=%s", broken.record.op,
                           file.Path());
  else
    trace::pack.WriteWarnV(WordsFor(broken), static_cast<int>(broken.record.transactionId),
                           file.Path());
}
