// inspect.
#include <algorithm>
#include <filesystem>
#include <set>

#include "tools/base/Console.h"
#include "tools/base/Interrupt.h"
#include "tools/base/Json.h"
#include "tools/command/Commands.h"
#include "tools/view/Naming.h"
#include "tools/view/Rest.h"
#include "tools/view/SalvageScan.h"
#include "tools/view/StoreView.h"

namespace tool {
namespace {

namespace stdfs = std::filesystem;

struct InspectOptions {
  std::vector<std::string> paths;  // packs and journals, or stores for all of their files
  std::string transaction;         // an id, or the offset of a start record; empty for all
  bool records = false;
  bool noDigest = false;
};

// Prints one file, in pieces: a file may have millions of records.
class Inspector {
 public:
  Inspector(std::string path, const InspectOptions& options)
      : path_(std::move(path)), options_(options) {}

  // Whether the transaction that was asked for is not in it.
  bool notFound() const { return notFound_; }

  // Returns whether the file is sound.
  bool Run() {
    const FileStatus status = ReadStatus(path_);
    const bool isMissing = status.state == FileStatus::State::kMissing;
    const auto name = format::FileName::Parse(stdfs::path(path_).filename().string());
    if (isMissing && name && name->IsUnfinished()) return true;  // a repack has ended meanwhile
    PrintHeader(status);
    bool sound = status.state != FileStatus::State::kDamaged && !isMissing;
    if (status.state == FileStatus::State::kSound || status.state == FileStatus::State::kDamaged) {
      SalvageFile file(path_);
      sound = PrintRecords(file, status) && sound;
    }
    Flush();
    return sound && !notFound_;
  }

 private:
  void Flush() { PrintText(std::exchange(text_, {})); }

  void Add(const std::string& text) {
    text_ += text;
    if (text_.size() < kPrintAt) return;
    ThrowIfInterrupted();
    Flush();
  }

  template <class... T>
  void Line(fmt::format_string<T...> text, T&&... values) {
    Add(fmt::format(text, std::forward<T>(values)...) + "\n");
  }

  void PrintHeader(const FileStatus& status) {
    const std::string_view state = format::NameOf(status.state);
    const format::FileHeader& header = status.header;
    if (consoleOptions.json)
      return Add(JsonLine({{"type", "file"},
                           {"path", path_},
                           {"kind", header.mode == 1 ? "pack" : "journal"},
                           {"size", status.size},
                           {"header", state},
                           {"sequence", header.sequence},
                           {"records", header.recordCount},
                           {"max_blob_size", header.maxBlobSize},
                           {"version", header.version},
                           {"end_offset", header.endOffset}}));
    Line("{}: {}, header {}", path_, Count(status.size, "byte"), state);
    if (status.state == FileStatus::State::kSound || status.state == FileStatus::State::kDamaged)
      Line("  {}, sequence {}, {}, {} bytes in use, largest blob {}, version {}",
           header.mode == 0   ? "journal"
           : header.mode == 1 ? "pack"
                              : fmt::format("mode {}", header.mode),
           header.sequence, Count(header.recordCount, "record"), header.endOffset,
           header.maxBlobSize, header.version);
  }

  bool PrintRecords(SalvageFile& file, const FileStatus& status) {
    WalkOptions walk;
    if (options_.noDigest || !options_.transaction.empty()) walk.digests = Digests::kIgnore;
    bool skipRecords = false;
    walk.transaction = [&](const format::Transaction& transaction) {
      skipRecords = !IsWanted(transaction);
      if (skipRecords) return;
      PrintTransaction(file, transaction, "ok");
    };
    if (options_.records)
      walk.record = [&](const format::Record& record) {
        if (!skipRecords) PrintRecord(record, "committed");
      };
    const Walked walked = Walk(file, status, walk);
    if ((walked.damage || !digestOk_) && HasChanged(status))
      throw StoreChanged("{} changed while it was read: another process is at work on it", path_);
    if (!options_.transaction.empty()) {
      notFound_ = !tableBegun_;
      return digestOk_;
    }
    if (walked.mismatched) PrintTransaction(file, *walked.mismatched, "wrong");
    if (walked.damage) PrintDamage(file, walked);
    if (status.state == FileStatus::State::kSound || !walked.damage)
      PrintRest(file, status, walked);
    return !walked.damage || walked.lastIsTorn;
  }

  bool HasChanged(const FileStatus& before) const {
    const FileStatus now = ReadStatus(path_);
    return now.header.endOffset != before.header.endOffset ||
           now.header.sequence != before.header.sequence ||
           now.header.recordCount != before.header.recordCount;
  }

  bool IsWanted(const format::Transaction& transaction) const {
    return options_.transaction.empty() ||
           options_.transaction == std::to_string(transaction.start.transactionId) ||
           options_.transaction == std::to_string(transaction.offset);
  }

  void PrintTransaction(SalvageFile& file, const format::Transaction& transaction,
                        std::string digest) {
    if (options_.noDigest) digest = "not computed";
    if (!options_.noDigest && !options_.transaction.empty() &&
        !file.HasDigest(transaction.BodyOffset(), transaction.block.length,
                        transaction.block.digest)) {
      digest = "wrong";
      digestOk_ = false;
    }
    const std::optional<std::string> time = TimeOf(transaction.start.transactionId);
    if (!std::exchange(tableBegun_, true) && !consoleOptions.json)
      Line("  {:>10} {:>20} {:20} {:>8} {:>8} {:>12}  digest", "offset", "transaction", "time",
           "stores", "deletes", "bytes");
    if (!consoleOptions.json)
      return Line("  {:>10} {:>20} {:20} {:>8} {:>8} {:>12}  {}", transaction.offset,
                  transaction.start.transactionId, time.value_or("-"), transaction.storeCount,
                  transaction.deleteCount, transaction.End() - transaction.offset, digest);
    Json object = {{"type", "transaction"},
                   {"file", path_},
                   {"offset", transaction.offset},
                   {"id", transaction.start.transactionId},
                   {"time", nullptr},
                   {"stores", transaction.storeCount},
                   {"deletes", transaction.deleteCount},
                   {"bytes", transaction.End() - transaction.offset},
                   {"blob_bytes", transaction.blobBytes},
                   {"digest", options_.noDigest ? Json() : Json(digest)}};
    if (time) object["time"] = *time;
    Add(JsonLine(object));
  }

  void PrintRecord(const format::Record& record, std::string_view state) {
    const char* const op = record.IsStore() ? "store" : "delete";
    const std::string hash = HashOf(record).text();
    if (consoleOptions.json)
      return Add(JsonLine({{"type", "record"},
                           {"file", path_},
                           {"offset", record.offset},
                           {"op", op},
                           {"id", record.op.transactionId},
                           {"hash", hash},
                           {"size", record.size},
                           {"state", state}}));
    Line("    {:>10} {:6} {} {:>10} {:>20} {}", record.offset, op, hash, record.size,
         record.op.transactionId, state);
  }

  void PrintScanned(SalvageFile& file, uint64_t offset, std::string_view state) {
    unsigned char bytes[format::kStoreHeaderSize];
    file.Read(offset, bytes, sizeof bytes);
    PrintRecord({format::RecordHeader::Decode(bytes), offset}, state);
  }

  void PrintDamage(SalvageFile& file, const Walked& walked) {
    const Damage& damage = *walked.damage;
    const SalvageScan scan = Scan(path_);
    uint64_t soundBeyond = 0;
    for (const SalvagedRecord& record : scan.records) {
      if (record.offset < damage.offset || !scan.IsCommitted(record)) continue;
      const bool isSound = record.kind != SalvagedRecord::Kind::kBroken;
      soundBeyond += isSound ? 1 : 0;
      if (options_.records || !isSound)
        PrintScanned(file, record.offset, isSound ? "sound" : "damaged");
    }
    if (consoleOptions.json)
      return Add(JsonLine({{"type", "damage"},
                           {"file", path_},
                           {"offset", damage.offset},
                           {"what", damage.what},
                           {"torn", walked.lastIsTorn},
                           {"sound_beyond", soundBeyond}}));
    Line("  {} at {}: {}; {} beyond {} sound", walked.lastIsTorn ? "incomplete" : "damaged",
         damage.offset, damage.what, Count(soundBeyond, "record"), soundBeyond == 1 ? "is" : "are");
  }

  void PrintRest(SalvageFile& file, const FileStatus& status, const Walked& walked) {
    const bool isSound = status.state == FileStatus::State::kSound;
    const uint64_t at = isSound ? status.header.endOffset : walked.end;
    const Rest rest = RestOf(file, status.header, at,
                             [this](const format::Record& record, std::string_view state) {
                               if (options_.records) PrintRecord(record, state);
                             });
    if (rest.size == 0) return;
    if (consoleOptions.json)
      return Add(JsonLine({{"type", "rest"},
                           {"file", path_},
                           {"offset", at},
                           {"size", rest.size},
                           {"kind", NameOf(rest.kind)},
                           {"what", rest.what}}));
    Line("  beyond {}: {}, {}", at, Count(rest.size, "byte"), rest.what);
  }

  const std::string path_;
  const InspectOptions& options_;
  std::string text_;
  bool tableBegun_ = false;  // a transaction was printed
  bool digestOk_ = true;
  bool notFound_ = false;
};

// A store stands for its files and what was set aside of them.
std::vector<std::string> FilesOf(const std::string& path) {
  std::error_code ignored;
  if (!stdfs::is_directory(path, ignored)) return {path};
  const std::vector<SlotFile> files = LayoutOf({path}, Access::kLook).ReadFiles();
  std::vector<std::string> paths;
  paths.reserve(files.size());
  for (const SlotFile& file : files) paths.push_back(file.path);
  for (const std::string& leftover : LeftoversBeside(files)) paths.push_back(leftover);
  return paths;
}

// Prints what lies in files, record by record if asked to.
ExitStatus Inspect(const InspectOptions& options) {
  bool sound = true;
  bool found = options.transaction.empty();
  for (const std::string& path : options.paths) {
    for (const std::string& file : FilesOf(path)) {
      Inspector inspector(file, options);
      const bool fine = inspector.Run();
      sound = sound && (fine || inspector.notFound());
      found = found || !inspector.notFound();
    }
  }
  if (!found) throw NothingFound("there is no transaction {}", options.transaction);
  return sound ? kSuccess : kFault;
}

}  // namespace

void AddInspect(CommandLine& line) {
  auto [command, options] =
      line.Add(Group::kLook,
               {"inspect", "print what lies in packs and journals",
                "The header, a line for each transaction, what lies behind the records that "
                "count, and where damage begins.",
                "blobring inspect --records store/0.jrn\n"
                "blobring inspect --transaction 1764057600000000 /data/store"},
               Inspect);
  command.add_option("FILE", options.paths, "packs and journals, or stores for all their files")
      ->required();
  command.add_flag("--records", options.records, "print each record");
  command
      .add_option("--transaction", options.transaction,
                  "only this one: its id, or its offset in the file")
      ->type_name("TX");
  command.add_flag("--no-digest", options.noDigest, "do not compute digests");
}

}  // namespace tool
