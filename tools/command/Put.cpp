// put.
#include <algorithm>
#include <filesystem>

#include "tools/base/Console.h"
#include "tools/base/Interrupt.h"
#include "tools/command/Commands.h"
#include "tools/work/BatchWriter.h"
#include "tools/work/Open.h"

namespace tool {
namespace {

namespace stdfs = std::filesystem;

struct PutOptions {
  StoreOptions at;
  std::vector<std::string> files;
  bool dryRun = false;  // print the hashes, store nothing
};

// Stores files, "-" or none for standard input, and prints the hash of each. Files that cannot be
// read are named; the others go on.
ExitStatus Put(const PutOptions& options) {
  const StoreOptions& at = options.at;
  const std::vector<std::string>& files = options.files;
  const bool dryRun = options.dryRun;
  LayoutOf(at, Access::kChange);  // before anything is waited for
  std::string lines;              // of committed blobs
  std::optional<OpenStore> open;
  std::optional<BatchWriter> writer;
  const auto close = [&] {
    if (writer) writer->Commit();
    writer.reset();
    open.reset();
  };
  const auto opened = [&]() -> BatchWriter& {
    if (!open) open.emplace(at, Access::kChange);
    if (!writer) writer.emplace(open->store, lines);
    return *writer;
  };
  Buffer buffer;
  bool all = true;
  std::vector<std::pair<blobring::Hash, std::string>> stored;
  try {
    for (const std::string& file : files.empty() ? std::vector<std::string>{"-"} : files) {
      if (IsInterrupted()) throw Interrupted("interrupted: what was printed is committed");
      std::error_code ignored;
      if (file == "-" || !stdfs::is_regular_file(file, ignored)) close();  // reading may wait
      blobring::Hash hash;
      uint64_t size = 0;
      const std::optional<LargeItem> large = DigestLarge(file);
      if (large && (dryRun || opened().AddLarge(*large))) {
        hash = large->hash;
        size = large->size;
      } else {
        std::string_view bytes;
        try {
          bytes = ReadStream(file, buffer);
        } catch (const Fault& fault) {
          const bool isDirectory = stdfs::is_directory(file, ignored);
          Say("{}{}", fault.what(), isDirectory ? "; use `blobring import`" : "");
          all = false;
          continue;
        }
        size = bytes.size();
        hash = dryRun ? blobring::Hash::of(std::as_bytes(std::span(bytes)))
                      : opened().Add(bytes, file).hash;
      }
      const std::string line =
          consoleOptions.json ? StoredLine(hash, size, file, dryRun) : hash.text() + "\n";
      if (dryRun)
        lines += line;
      else
        writer->AddLine(line);
      stored.emplace_back(hash, file);
    }
    close();
  } catch (...) {
    writer.reset();
    open.reset();
    PrintText(lines);
    if (!dryRun && files.size() > 1)
      Say("{} of {} are stored, those whose hashes are printed",
          std::count(lines.begin(), lines.end(), '\n'), Count(files.size(), "file"));
    throw;
  }
  PrintText(lines);
  if (!all)
    for (const auto& [hash, file] : stored) Say("{} is {}", hash.text(), file);
  return all ? kSuccess : kFault;
}

}  // namespace

void AddPut(CommandLine& line) {
  auto [command, options] =
      line.Add(Group::kWork,
               {"put", "store files and print their hashes", "",
                "blobring put /data/store report.pdf\ndate | blobring put /data/store"},
               Put);
  CommandLine::AddStore(command, options.at, Access::kChange);
  command.add_option("FILE", options.files, "files to store; standard input without any, or for -");
  command.add_flag("-n,--dry-run", options.dryRun, "print the hashes, store nothing");
}

}  // namespace tool
