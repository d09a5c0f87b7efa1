#include "tools/view/FileWalk.h"

#include <vector>

#include "tools/base/Console.h"

namespace tool {
namespace {

using format::Break;

class Listener final : public format::ReadListener {
 public:
  Listener(SalvageFile& file, const WalkOptions& options) : file_(file), options_(options) {}

  void OnRecord(size_t /*lane*/, const format::Record& record) override {
    if (options_.record && options_.digests == Digests::kLast) options_.record(record);
  }
  void OnTransaction(size_t /*lane*/, const format::Transaction& transaction) override {
    if (options_.transaction) options_.transaction(transaction);
    if (options_.record && options_.digests != Digests::kLast)
      format::VisitRecords(file_, transaction.BodyOffset(), transaction.BodyEnd(),
                           [this](const format::Record& record) {
                             options_.record(record);
                             return true;
                           });
  }
  void OnSingle(const format::Record& record) override {
    if (options_.record) options_.record(record);
  }
  void OnDigested(uint64_t end) override {
    if (options_.progress) options_.progress(end);
  }
  unsigned char* Lend(size_t size) override {
    lent_.resize(size);
    return lent_.data();
  }

 private:
  SalvageFile& file_;
  const WalkOptions& options_;
  std::vector<unsigned char> lent_;
};

std::string_view WordsFor(const Break& broken) {
  using Cause = Break::Cause;
  using Place = Break::Place;
  switch (broken.cause) {
    case Cause::kNone:
      break;
    case Cause::kCount:
      return "the header counts more records than any file has";
    case Cause::kNotEnded:
      return "a transaction that was not ended";
    case Cause::kDigest:
      return "a transaction that does not match its digest";
    case Cause::kHash:
      return "a record outside a transaction that does not match its hash";
    case Cause::kTooLong:
      return broken.place == Place::kSingle ? "a record that runs past the end of the file"
                                            : "a record that runs past its transaction";
    case Cause::kFileEnds:
      if (broken.place == Place::kOutside) return "the file ends before the records do";
      if (broken.place == Place::kStart) return "a transaction that runs past the end of the file";
      if (broken.place == Place::kSingle) return "a record that runs past the end of the file";
      return "no end record";
    case Cause::kOp:
      if (broken.place == Place::kOutside) return "no transaction starts here";
      return broken.place == Place::kBody ? "no record of a transaction" : "no end record";
  }
  return "";
}

}  // namespace

Walked Walk(SalvageFile& file, const FileStatus& status, const WalkOptions& options) {
  Listener listener(file, options);
  format::RecordReader reader(file, status.header, listener, options.digests);
  Walked walked = {reader.Run(), {}};
  if (!walked.broken) return walked;
  const Break& broken = walked.beneath ? walked.beneath : walked.broken;
  walked.damage = Damage{broken.offset, std::string(WordsFor(broken))};
  const bool isPack = status.header.mode == 1;  // of one transaction, which nothing can tear
  if (isPack || walked.remaining <= 0) return walked;
  walked.lastIsTorn = reader.JudgeRest().isTorn;
  const auto missing = static_cast<uint64_t>(walked.remaining);
  if (walked.lastIsTorn)
    walked.damage->what = torn::kText;
  else
    walked.damage->what += fmt::format(
        "; {} counted by the header, in at most {}, are missing or incomplete",
        Count(missing, "record"), Count(torn::MostTransactions(missing), "transaction"));
  return walked;
}

}  // namespace tool
