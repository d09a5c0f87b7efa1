// copy and sync.
#include <algorithm>

#include "tools/base/Console.h"
#include "tools/base/Json.h"
#include "tools/command/Commands.h"
#include "tools/remote/Commands.h"
#include "tools/view/Naming.h"
#include "tools/view/StoreView.h"
#include "tools/work/BatchWriter.h"
#include "tools/work/Open.h"

namespace tool {
namespace {

struct CopyOptions {
  std::string from;  // a store, or a pack or journal
  StoreOptions to;
  std::vector<std::string> hashes;  // all blobs without any
  bool dryRun = false;
};

// As they lie in the source, so that it is read from front to back.
NamedBlobs Chosen(const StoreView& from, const std::vector<std::string>& names) {
  if (names.empty()) return {from.InFileOrder()};
  NamedBlobs chosen = Named(from, names);
  std::ranges::sort(chosen.blobs, {}, &ViewedBlob::InFiles);
  return chosen;
}

void PrintTotals(uint64_t count, uint64_t bytes, bool dryRun) {
  PrintObject({{"type", "copy"}, {"blobs", count}, {"bytes", bytes}, {"dry_run", dryRun}});
}

// Returns whether the target is sound.
bool SayWhatIsMissing(const std::vector<const ViewedBlob*>& blobs, const StoreOptions& target) {
  const StoreView to({target.directory});
  std::string text;
  uint64_t bytes = 0;
  uint64_t count = 0;
  for (const ViewedBlob* blob : blobs) {
    if (to.Find(blob->hash) != nullptr) continue;
    const std::string hash = blob->hash.text();
    text += consoleOptions.json
                ? JsonLine({{"type", "missing"}, {"hash", hash}, {"size", blob->size}})
                : hash + "\n";
    bytes += blob->size;
    ++count;
  }
  PrintText(text);
  PrintTotals(count, bytes, true);
  Inform("{}, {}, would be copied to {}", Count(count, "blob"), HumanSize(bytes), to.path());
  return !to.damaged();
}

LargeItem ItemOf(const StoreView& view, const ViewedBlob& blob) {
  const auto readAt = [&](uint64_t offset, std::span<std::byte> room) {
    const auto size = static_cast<size_t>(std::min<uint64_t>(room.size(), blob.size - offset));
    view.file(blob.file).Read(blob.dataOffset() + offset,
                              reinterpret_cast<unsigned char*>(room.data()), size);
    return size;
  };
  return {blob.hash, blob.size, readAt, blob.hash.text()};
}

struct Totals {
  uint64_t blobs = 0;
  uint64_t bytes = 0;
};

// Adds to the totals. Returns whether all could be read.
bool CopyBlobs(const StoreView& from, const std::vector<const ViewedBlob*>& blobs,
               const StoreOptions& target, Totals& totals) {
  bool all = true;
  std::string unused;
  Buffer buffer;
  std::optional<OpenStore> to(std::in_place, target, Access::kChange);
  BatchWriter writer(to->store, unused, BatchWriter::WhenFull::kRepack);
  std::vector<const ViewedBlob*> absent;
  uint64_t bytes = 0;
  for (const ViewedBlob* blob : blobs) {
    if (SizeOf(to->store, blob->hash)) continue;
    absent.push_back(blob);
    bytes += blob->size;
  }
  Progress progress("copying", absent.size(), bytes);
  const auto commit = [&] {
    writer.Commit();
    totals.blobs += writer.committedCount();
    totals.bytes += writer.committedBytes();
  };
  try {
    for (std::span<const ViewedBlob* const> rest = absent; !rest.empty();) {
      std::vector<BatchWriter::Item> items;
      for (const ReadBlob& read : from.ReadSome(rest, buffer)) {
        progress.Advance(read.blob->size);
        try {
          read.HandTo([](std::string_view) {});  // throws its fault
          if (read.blob->size <= kLargeSize)
            items.push_back({read.bytes, read.blob->hash.text()});
          else if (!writer.AddLarge(ItemOf(from, *read.blob)))
            throw DamagedBlob("the blob {} changed while it was copied", read.blob->hash.text());
        } catch (const DamagedBlob& fault) {
          all = false;
          Say("{}", fault.what());
        }
      }
      writer.AddMany(items, [](const auto&, const auto&) {});
    }
  } catch (const Interrupted&) {
    writer.CommitInterrupted();
  } catch (const StoreChanged&) {
    commit();
    throw;
  }
  commit();
  return all;
}

// Copies blobs that the other store does not have. Its journal is repacked when it is full. A blob
// that cannot be read or is not there is named; the others go on. Returns kFault for damage,
// kNothing if one is not there.
ExitStatus Copy(const CopyOptions& options) {
  LayoutOf(options.to, Access::kChange);  // before the source is read
  const std::vector<std::string> names = HashArguments(options.hashes);
  StoreView from({options.from});
  Totals totals;
  bool allThere = true;
  const bool sound = from.Steadily([&] {
    const NamedBlobs chosen = Chosen(from, names);
    allThere = chosen.allThere;
    return options.dryRun ? SayWhatIsMissing(chosen.blobs, options.to)
                          : CopyBlobs(from, chosen.blobs, options.to, totals);
  });
  if (!options.dryRun) {
    PrintTotals(totals.blobs, totals.bytes, false);
    Inform("{} copied, {}; {} had the others already", Count(totals.blobs, "blob"),
           HumanSize(totals.bytes), options.to.directory);
  }
  if (!sound || from.damaged()) return kFault;
  return allThere ? kSuccess : kNothing;
}

struct SyncOptions : CopyOptions {
  remote::RemoteOptions remote;
};

// A push and a pull, if `to` is a URL; as copy otherwise.
ExitStatus Sync(const SyncOptions& options) {
  if (!options.to.directory.starts_with("s3://")) return Copy(options);
  if (options.dryRun) throw UsageError("--dry-run is for two stores alone");
  remote::RemoteOptions remote = options.remote;
  remote.url = options.to.directory;
  StoreOptions at = options.to;
  at.directory = options.from;
  const ExitStatus pushed = remote::Push({at, remote, ""});
  const ExitStatus pulled = remote::Pull({at, remote, "", true});
  return pushed != kSuccess ? pushed : pulled;
}

}  // namespace

void AddCopy(CommandLine& line) {
  {
    auto [command, options] =
        line.Add(Group::kWork,
                 {"copy", "copy blobs from one store into another",
                  "SRC is only looked at, and may be in use. DST is repacked when its journal is "
                  "full.",
                  "blobring copy /mnt/device /data/store 591785b7"},
                 Copy);
    command.add_option("SRC", options.from, "a store, or a pack or journal")->required();
    CommandLine::AddStore(command, options.to, Access::kChange, "DST");
    CommandLine::AddHashes(command, options.hashes).required();
    command.add_flag("-n,--dry-run", options.dryRun, "print what is missing in DST, copy nothing");
  }
  {
    auto [command, options] =
        line.Add(Group::kWork,
                 {"sync", "copy what is missing from one store into another",
                  "Deletes nothing. What was committed stays when the command is interrupted; the "
                  "next run goes on from there. With a remote as DST, SRC is pushed, and then "
                  "receives what the newest whole snapshot of another store has.",
                  "blobring sync /mnt/device /data/store\n"
                  "blobring sync /data/store s3://fleet/all"},
                 Sync);
    command.add_option("SRC", options.from, "a store, or a pack or journal")->required();
    CommandLine::AddStore(command, options.to, Access::kChange, "DST");
    remote::AddOptions(command, options.remote);
    command.add_flag("-n,--dry-run", options.dryRun, "print what is missing in DST, copy nothing");
  }
}

}  // namespace tool
