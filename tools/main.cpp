// The command line of `blobring`: subcommands, options, exit status.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
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

namespace {

using tool::ExitStatus;
using tool::StoreOptions;

// What the command line was parsed into, and the command to run.
struct CommandLine {
  StoreOptions at;
  tool::ImportOptions import;
  tool::ExportOptions exporting;
  tool::SalvageOptions salvage;
  std::vector<std::string> files;
  std::vector<std::string> hashes;
  std::string output;
  std::string onDamage = "keep";
  bool longForm = false;
  bool force = false;
  std::function<ExitStatus()> run;

  using Command = std::function<ExitStatus(const StoreOptions&)>;

  CLI::App* Add(CLI::App& app, const std::string& name, const std::string& help,
                const Command& command) {
    CLI::App* sub = app.add_subcommand(name, help);
    sub->add_option("STORE", at.directory, "the store's directory")->required();
    sub->callback([this, command] {
      at.eraseDamaged = onDamage == "erase";
      run = [this, command] { return command(at); };
    });
    return sub;
  }

  // A command that changes the store.
  CLI::App* AddChange(CLI::App& app, const std::string& name, const std::string& help,
                      const Command& command) {
    CLI::App* sub = Add(app, name, help, command);
    sub->add_option("--on-damage", onDamage,
                    "keep: delete nothing (default); erase: empty a store that cannot be loaded")
        ->check(CLI::IsMember({"keep", "erase"}));
    return sub;
  }

  // A command that only looks.
  CLI::App* AddLook(CLI::App& app, const std::string& name, const std::string& help,
                    const Command& command) {
    CLI::App* sub = Add(app, name, help, command);
    AddSlots(*sub, "slots of a store without blobring.conf",
             "where its packs are; repeated, for the slots in turn");
    return sub;
  }

  void AddSlots(CLI::App& sub, const std::string& slotsHelp, const std::string& packDirHelp) {
    sub.add_option("--slots", at.slotCount, slotsHelp)->check(CLI::Range(1U, layout::kMaxSlots));
    AddPackDirs(sub, at.packDirs, packDirHelp);
  }
  static void AddPackDirs(CLI::App& sub, std::vector<std::string>& packDirs,
                          const std::string& help) {
    sub.add_option("--pack-dir", packDirs, help)
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  }
};

void AddCommands(CLI::App& app, CommandLine& line) {
  CLI::App* init = line.AddChange(app, "init", "make a store, with its directory", tool::Init);
  line.AddSlots(*init, "slots, each a pack and a journal (default 2)",
                "where packs go instead; repeated, for the slots in turn");

  line.AddChange(app, "put", "store files and print their hashes",
                 [&](const StoreOptions& at) { return tool::Put(at, line.files); })
      ->add_option("FILE", line.files, "files to store; standard input without any, or for -");

  CLI::App* get =
      line.AddLook(app, "get", "write blobs to standard output or a file",
                   [&](const StoreOptions& at) { return tool::Get(at, line.hashes, line.output); });
  get->add_option("HASH", line.hashes,
                  "the blobs' hashes, 32 hexadecimal digits; - for standard input")
      ->required();
  get->add_option("-o,--output", line.output, "the file to write; one that exists is replaced");

  line.AddLook(app, "ls", "print the hashes of all blobs",
               [&](const StoreOptions& at) { return tool::List(at, line.longForm); })
      ->add_flag("-l,--long", line.longForm, "print sizes as well");

  line.AddChange(app, "rm", "delete blobs",
                 [&](const StoreOptions& at) { return tool::Remove(at, line.hashes); })
      ->add_option("HASH", line.hashes, "the blobs' hashes; - for standard input")
      ->required();

  CLI::App* import =
      line.AddChange(app, "import", "store every regular file of a tree",
                     [&](const StoreOptions& at) { return tool::Import(at, line.import); });
  import->add_option("DIR", line.import.directory, "the tree")->required();
  import->add_option("-m,--manifest", line.import.manifest,
                     "where to write the manifest; standard output otherwise");
  import->add_flag("--force", line.import.force, "replace a manifest that exists");
  import->add_flag("-v,--verbose", line.import.verbose, "name each file that is left out");

  CLI::App* exporting =
      line.AddLook(app, "export", "restore the files of a manifest",
                   [&](const StoreOptions& at) { return tool::Export(at, line.exporting); });
  exporting
      ->add_option("MANIFEST", line.exporting.manifest, "what import wrote; - for standard input")
      ->required();
  exporting->add_option("DIR", line.exporting.directory, "where to; made if need be")->required();
  exporting->add_flag("--force", line.exporting.force, "replace files that exist");

  line.AddLook(app, "stat", "print how full the store and its files are", tool::Stat);
  line.AddLook(app, "fsck", "check every blob against its hash", tool::Check);
  line.AddChange(app, "repack", "copy all blobs into the next slot, without what was deleted",
                 [&](const StoreOptions& at) { return tool::Repack(at, line.force); })
      ->add_flag("--force", line.force,
                 "even when the store is damaged: go on with what can be read");

  CLI::App* salvage =
      app.add_subcommand("salvage", "copy what can be read of damaged files into a new store");
  salvage
      ->add_option("DIR", line.salvage.directory,
                   "where the packs and journals are; nothing in it is changed")
      ->required();
  salvage->add_option("OUT", line.salvage.store, "the new store; must not exist or be empty")
      ->required();
  CommandLine::AddPackDirs(*salvage, line.salvage.packDirs,
                           "where packs are as well; may be repeated");
  salvage->add_flag("--live-only", line.salvage.liveOnly,
                    "leave deleted blobs behind, where that can be told");
  salvage->callback([&line] { line.run = [&line] { return tool::Salvage(line.salvage); }; });
}

// A file opened as number 1 or 2 would be written our results and messages:
// what is closed is taken by a descriptor that can only fail.
void OccupyStandardStreams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    if (::fcntl(fd, F_GETFD) < 0) ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
}

int Run(int argc, char** argv) {
  CLI::App app(
      "Keeps files by the MD5 digest of their contents in a store on the local file system.",
      "blobring");
  app.set_version_flag("--version", "blobring " BLOBRING_VERSION);
  app.require_subcommand(1);
  app.footer("Exit status: 0 success, 1 the store, a blob or a file is at fault, 2 usage.");
  CommandLine line;
  AddCommands(app, line);
  try {
    const std::string command = argc > 1 ? argv[1] : "-";
    const auto isCommand = [&command](const CLI::App* sub) { return sub->check_name(command); };
    if (!command.starts_with('-') && app.get_subcommands(isCommand).empty())
      throw tool::UsageError(
          fmt::format("there is no command \"{}\"; `blobring --help` lists them", command));
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    throw tool::UsageError(fmt::format("{}; see `blobring --help`", e.what()));
  }
  tool::TakeTrace();
  return line.run();
}

}  // namespace

int main(int argc, char** argv) {
  OccupyStandardStreams();
  tool::InitConsole();
  // A file that may not grow further is an error of the write, with a message.
  std::signal(SIGXFSZ, SIG_IGN);
  try {
    return Run(argc, argv);
  } catch (const tool::UsageError& e) {
    tool::Say(e.what());
    return tool::kUsage;
  } catch (const blobring::Error& e) {
    tool::Say(tool::Explain(e));
  } catch (const std::exception& e) {
    tool::Say(e.what());
  }
  return tool::kFault;
}
