// get and cat.
#include <iostream>

#include "tools/base/Console.h"
#include "tools/base/Interrupt.h"
#include "tools/base/StagedFile.h"
#include "tools/command/Commands.h"
#include "tools/view/JsonObjects.h"
#include "tools/view/Naming.h"
#include "tools/view/StoreView.h"

namespace tool {
namespace {

// Null for a name that fits none or several.
const ViewedBlob* NamedOrNull(const StoreView& view, const std::string& name) {
  try {
    return &Named(view, name);
  } catch (const CommandError&) {
    return nullptr;
  }
}

struct GetOptions {
  StoreOptions at;
  std::vector<std::string> hashes;
  std::string output;  // see Output; empty for standard output
  bool batch = false;  // answer the hashes of standard input, one a line, as they come
};

// As git's cat-file --batch has it: "HASH SIZE", the bytes, a newline. What is not there, ambiguous
// or damaged is said so behind the word that was asked for.
ExitStatus AnswerBatch(StoreView& view) {
  bool sound = true;
  const auto print = [](std::string_view bytes) {
    WriteAll(STDOUT_FILENO, bytes, "to standard output");
  };
  for (std::string line; std::getline(std::cin, line); ThrowIfInterrupted()) {
    std::string answer;
    const ViewedBlob* large = nullptr;  // read for its fault first, and again to be printed
    try {
      view.Steadily([&] {
        view.Confirm({NamedOrNull(view, line)});
        const ViewedBlob& blob = Named(view, line);
        large = blob.size > kLargeSize ? &blob : nullptr;
        answer = fmt::format("{} {}\n", blob.hash.text(), blob.size);
        view.Read(blob, [&](std::string_view piece) {
          if (large == nullptr) answer += piece;
        });
      });
    } catch (const NothingFound&) {
      answer = line + " missing";
    } catch (const Ambiguous&) {
      answer = line + " ambiguous";
    } catch (const UsageError&) {
      answer = line + " missing";
    } catch (const Fault& fault) {
      Say("{}", fault.what());
      answer = line + " damaged";
      large = nullptr;
      sound = false;
    }
    if (large != nullptr) {
      print(answer);
      view.Read(*large, print);
      answer.clear();
    }
    print(answer + "\n");
  }
  return sound && !view.damaged() ? kSuccess : kFault;
}

// Writes blobs one after the other, each checked against its hash. Those that are damaged or absent
// are named; the others go on. Returns kNothing if some are absent and all others sound.
ExitStatus Get(const GetOptions& options) {
  if (options.batch != options.hashes.empty()) throw UsageError("wanted either HASH or --batch");
  if (consoleOptions.json && (options.output.empty() || options.output == "-"))
    throw UsageError("blobs are not JSON: with --json, use `blobring get -o FILE`");
  const std::vector<std::string> names = HashArguments(options.hashes);
  StoreView view(options.at, Depth::kRecords);
  if (options.batch) return AnswerBatch(view);
  std::vector<const ViewedBlob*> blobs;
  blobs.reserve(names.size());
  for (const std::string& name : names) blobs.push_back(NamedOrNull(view, name));
  view.Confirm(blobs);
  blobs.clear();
  Output out(options.output, Existing::kReplace);
  Buffer buffer;
  bool sound = !view.damaged();
  bool allThere = true;
  bool allGood = true;
  std::string objects;
  for (const std::string& name : names) {
    try {
      blobs.push_back(&Named(view, name));
    } catch (const NothingFound& nothing) {
      Say("{}", nothing.what());
      allThere = false;
    }
  }
  for (std::span<const ViewedBlob* const> rest = blobs; !rest.empty(); ThrowIfInterrupted())
    for (const ReadBlob& read : view.ReadSome(rest, buffer)) {
      try {
        // What has gone to a pipe cannot be taken back.
        if (!out.isFile() && view.depth() == Depth::kAll) read.HandTo([](std::string_view) {});
        read.HandTo([&out](std::string_view piece) { out.Write(piece); });
        if (consoleOptions.json) objects += JsonLine(BlobObject(view, *read.blob));
      } catch (const DamagedBlob& fault) {
        SayDamage("{}", fault.what());
        allGood = false;
      }
    }
  if (allThere && allGood) out.Finish();
  if (allThere && allGood) PrintText(objects);
  if (!allGood || !sound) return kFault;
  return allThere ? kSuccess : kNothing;
}

}  // namespace

void AddGet(CommandLine& line) {
  {
    auto [command, options] = line.Add(
        Group::kLook,
        {"get", "write blobs to standard output or a file",
         "With --batch, each line of standard input names a blob and is answered at once by its "
         "hash, its size, a newline, the bytes and a newline; or by what was asked for and one of "
         "the words missing, ambiguous, damaged.",
         "blobring get /data/store 591785b7 -o report.pdf\n"
         "blobring get --batch /data/store < hashes"},
        Get);
    CommandLine::AddStore(command, options.at, Access::kLook);
    CommandLine::AddHashes(command, options.hashes);
    command
        .add_option("-o,--output", options.output, "the file to write; one that exists is replaced")
        ->type_name("FILE");
    command.add_flag("--batch", options.batch, "answer standard input line by line");
  }
  {
    auto [command, options] = line.Add(
        Group::kLook,
        {"cat", "write blobs to standard output", "", "blobring cat /data/store 591785b7"}, Get);
    CommandLine::AddStore(command, options.at, Access::kLook);
    CommandLine::AddHashes(command, options.hashes).required();
  }
}

}  // namespace tool
