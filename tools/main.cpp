// The command line of `blobring`: subcommands, options, exit status.
#include <CLI/CLI.hpp>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include "tools/Commands.h"
#include "tools/Console.h"
#include "tools/Error.h"
#include "tools/Export.h"
#include "tools/Import.h"
#include "tools/Salvage.h"
#include "tools/Statistics.h"
#include "tools/Trace.h"

namespace {

using tool::ExitStatus;
using tool::Layout;
using tool::OnDamage;
using tool::StoreOptions;

// What the command line was parsed into, and the command to run.
struct CommandLine {
  std::string store;
  tool::InitOptions init;
  tool::ImportOptions import;
  tool::ExportOptions exporting;
  tool::SalvageOptions salvage;
  std::vector<std::string> files;
  std::vector<std::string> hashes;
  std::string hash;
  std::string output;
  bool longForm = false;
  bool force = false;
  std::string onDamage = "keep";
  std::function<ExitStatus()> run;

  // Every command but init and salvage works on a store that is there.
  template <typename Command>
  CLI::App* Add(CLI::App& app, const std::string& name, const std::string& help, Command command) {
    CLI::App* sub = app.add_subcommand(name, help);
    sub->add_option("STORE", store, "the store's directory")->required();
    AddOnDamage(*sub);
    sub->callback([this, command] {
      run = [this, command] { return command(StoreOptions{Layout::Read(store), OnDamageGiven()}); };
    });
    return sub;
  }

  void AddOnDamage(CLI::App& sub) {
    sub.add_option("--on-damage", onDamage,
                   "keep: delete nothing (default); erase: empty a store that cannot be loaded")
        ->check(CLI::IsMember({"keep", "erase"}));
  }
  OnDamage OnDamageGiven() const { return onDamage == "erase" ? OnDamage::kErase : OnDamage::kKeep; }
};

void AddInit(CLI::App& app, CommandLine& line) {
  CLI::App* init = app.add_subcommand("init", "make a store");
  init->add_option("STORE", line.init.store, "the store's directory, made if need be")->required();
  init->add_option("--slots", line.init.slotCount, "slots, each a pack and a journal (default 2)")
      ->check(CLI::Range(size_t{1}, tool::kMaxSlots));
  init->add_option("--pack-dir", line.init.packDirs, "where packs go instead; repeated, for the slots in turn")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  line.AddOnDamage(*init);
  init->callback([&line] {
    line.init.onDamage = line.OnDamageGiven();
    line.run = [&line] { return tool::Init(line.init); };
  });
}

void AddBlobCommands(CLI::App& app, CommandLine& line) {
  line.Add(app, "put", "store files and print their hashes",
           [&](const StoreOptions& at) { return tool::Put(at, line.files); })
      ->add_option("FILE", line.files, "files to store; standard input without any, or for -");

  CLI::App* get = line.Add(app, "get", "write a blob to standard output or a file",
                           [&](const StoreOptions& at) { return tool::Get(at, line.hash, line.output); });
  get->add_option("HASH", line.hash, "the blob's hash, 32 hexadecimal digits")->required();
  get->add_option("-o,--output", line.output, "the file to write; one that exists is replaced");

  line.Add(app, "ls", "print the hashes of all blobs",
           [&](const StoreOptions& at) { return tool::List(at, line.longForm); })
      ->add_flag("-l,--long", line.longForm, "print sizes as well");

  line.Add(app, "rm", "delete blobs", [&](const StoreOptions& at) { return tool::Remove(at, line.hashes); })
      ->add_option("HASH", line.hashes, "the blobs' hashes")
      ->required();
}

void AddTreeCommands(CLI::App& app, CommandLine& line) {
  CLI::App* import = line.Add(app, "import", "store every regular file of a tree",
                              [&](const StoreOptions& at) { return tool::Import(at, line.import); });
  import->add_option("DIR", line.import.directory, "the tree")->required();
  import->add_option("-m,--manifest", line.import.manifest, "where to write the manifest; standard output otherwise");
  import->add_flag("-v,--verbose", line.import.verbose, "name each file that is left out");

  CLI::App* exporting = line.Add(app, "export", "restore the files of a manifest",
                                 [&](const StoreOptions& at) { return tool::Export(at, line.exporting); });
  exporting->add_option("MANIFEST", line.exporting.manifest, "what import wrote; - for standard input")->required();
  exporting->add_option("DIR", line.exporting.directory, "where to; made if need be")->required();
  exporting->add_flag("--force", line.exporting.force, "replace files that exist");
}

void AddStoreCommands(CLI::App& app, CommandLine& line) {
  line.Add(app, "stat", "print how full the store and its files are", tool::PrintStatistics);
  line.Add(app, "fsck", "check every blob against its hash", tool::Check);
  line.Add(app, "repack", "copy all blobs into the next slot, without what was deleted",
           [&](const StoreOptions& at) { return tool::Repack(at, line.force); })
      ->add_flag("--force", line.force, "even when the store is damaged: go on with what can be read");
}

void AddSalvage(CLI::App& app, CommandLine& line) {
  CLI::App* salvage = app.add_subcommand("salvage", "copy what can be read of damaged files into a new store");
  salvage->add_option("DIR", line.salvage.directory, "where the packs and journals are; nothing in it is changed")
      ->required();
  salvage->add_option("OUT", line.salvage.store, "the new store; must not exist or be empty")->required();
  salvage->add_option("--pack-dir", line.salvage.packDirs, "where packs are as well; may be repeated")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  salvage->add_flag("--live-only", line.salvage.liveOnly, "leave deleted blobs behind, where that can be told");
  salvage->callback([&line] { line.run = [&line] { return tool::Salvage(line.salvage); }; });
}

int Run(int argc, char** argv) {
  CLI::App app("Keeps files by the MD5 digest of their contents in a store on the local file system.", "blobring");
  app.set_version_flag("--version", "blobring " BLOBRING_VERSION);
  app.require_subcommand(1);
  app.footer("Exit status: 0 success, 1 the store, a blob or a file is at fault, 2 usage.");
  CommandLine line;
  AddInit(app, line);
  AddBlobCommands(app, line);
  AddTreeCommands(app, line);
  AddStoreCommands(app, line);
  AddSalvage(app, line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? tool::kSuccess : tool::kUsage;
  }
  tool::TraceCapture::Install();
  return line.run();
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const tool::UsageError& e) {
    tool::Say(e.what());
    return tool::kUsage;
  } catch (const std::exception& e) {
    tool::Say(e.what());
    return tool::kFault;
  }
}
